#include "Config.h"
#include "ServerProcess.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sys/wait.h>

namespace tavelo::cloud {
namespace {

int exitCodeOf(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Config, FlagsWinOverTheFileAndABrokenFileIsAnError) {
    testing::TemporaryDirectory directory;
    const std::string file = directory.path() + "/config.json";
    std::ofstream(file) << R"({"listen": "10.0.0.5:8443", "database": "postgresql://db/tavelo", "behindTLSProxy": true})";
    auto parsed = parseArguments({"--database", "/tmp/x.sqlite3", "--config", file});
    ASSERT_FALSE(parsed.error) << *parsed.error;
    EXPECT_EQ(parsed.config.listenHost, "10.0.0.5");
    EXPECT_EQ(parsed.config.databaseURL(), "/tmp/x.sqlite3"); // the flag wins wherever it stands
    EXPECT_FALSE(parsed.config.problem());
    std::ofstream(file) << "not json";
    EXPECT_TRUE(parseArguments({"--config", file}).error);
}

TEST(Config, TheExecutableRefusesAnOpenAddressWithoutTLSAndAnUnusableDatabase) {
    testing::TemporaryDirectory directory;
    const std::string binary = TAVELO_CLOUD_BINARY;
    const std::string env = "XDG_DATA_HOME=" + directory.path() + " XDG_CONFIG_HOME=" + directory.path() + " ";
    EXPECT_EQ(exitCodeOf(env + binary + " --listen 0.0.0.0:0 >/dev/null 2>&1"), 2);
    EXPECT_EQ(exitCodeOf(env + binary + " --listen 127.0.0.1:0 --database /proc/nope/db >/dev/null 2>&1"), 1);
}

} // namespace
} // namespace tavelo::cloud
