#include "Crypto.h"
#include "Mailer.h"
#include "ServerProcess.h"

#include <gtest/gtest.h>

namespace tavelo::cloud {
namespace {

using testing::readFile;

// A relay that cannot be reached loses no mail: it waits in the spool.
TEST(Mailer, AnAbsentRelayFallsBackToTheSpool) {
    crypto::initialise();
    testing::TemporaryDirectory directory;
    const std::string spool = directory.path() + "/spool.txt";
    Mailer nobodyListening(spool, "smtp://127.0.0.1:" + std::to_string(testing::freePort()));
    nobodyListening.send("user@example.jp", "subject", "kept in the spool");
    EXPECT_NE(readFile(spool).find("kept in the spool"), std::string::npos);
}

} // namespace
} // namespace tavelo::cloud
