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

TEST(Config, FileThenFlagsAndTheirMistakes) {
    testing::TemporaryDirectory directory;
    const std::string file = directory.path() + "/config.json";
    std::ofstream(file) << R"({"listen": "10.0.0.5:8443", "database": "postgresql://db/tavelo", "behindTLSProxy": true,
                              "provider": {"baseURL": "http://127.0.0.1:1/v1", "model": "m", "timeoutSeconds": 9}})";
    auto parsed = parseArguments({"--database", "/tmp/x.sqlite3", "--config", file});
    ASSERT_FALSE(parsed.error) << *parsed.error;
    const Config& c = parsed.config;
    EXPECT_EQ(c.listenHost, "10.0.0.5");
    EXPECT_EQ(c.listenPort, 8443);
    EXPECT_EQ(c.databaseURL(), "/tmp/x.sqlite3"); // the flag wins wherever it stands
    EXPECT_EQ(c.provider.timeoutSeconds, 9);
    EXPECT_FALSE(c.problem());
    EXPECT_EQ(c.endpoint(8443), "http://10.0.0.5:8443");

    EXPECT_TRUE(parseArguments({"--listen", "127.0.0.1:99999"}).error);
    EXPECT_TRUE(parseArguments({"--listen"}).error);
    EXPECT_TRUE(parseArguments({"--threads", "many"}).error);
    EXPECT_TRUE(parseArguments({"--frobnicate"}).error);
    EXPECT_TRUE(parseArguments({"--config", directory.path() + "/missing.json"}).error);
    std::ofstream(file) << "not json";
    EXPECT_TRUE(parseArguments({"--config", file}).error);

    auto wildcard = parseArguments({"--listen", "0.0.0.0:47615"}).config;
    EXPECT_TRUE(wildcard.problem()); // no TLS, no proxy
    wildcard.tlsCertificate = "cert.pem";
    wildcard.tlsKey = "key.pem";
    EXPECT_FALSE(wildcard.problem());
    EXPECT_EQ(wildcard.endpoint(47615), "https://127.0.0.1:47615");
    auto halfProvider = parseArguments({"--ai-model", "m"}).config;
    EXPECT_TRUE(halfProvider.problem());
}

TEST(Config, TheExecutableExplainsItselfAndRefusesAnOpenAddressWithoutTLS) {
    testing::TemporaryDirectory directory;
    const std::string binary = TAVELO_CLOUD_BINARY;
    const std::string out = directory.path() + "/out.txt";
    EXPECT_EQ(exitCodeOf(binary + " --help >" + out + " 2>&1"), 0);
    EXPECT_NE(testing::readFile(out).find("--listen HOST:PORT"), std::string::npos);
    EXPECT_EQ(exitCodeOf("XDG_DATA_HOME=" + directory.path() + " " + binary + " --listen 0.0.0.0:0 >" + out + " 2>&1"), 2);
    EXPECT_NE(testing::readFile(out).find("without TLS"), std::string::npos);
    // A database it cannot open stops the start with a clear log line.
    EXPECT_EQ(exitCodeOf("XDG_CONFIG_HOME=" + directory.path() + " " + binary + " --listen 127.0.0.1:0 --database /proc/nope/db >" +
                         out + " 2>&1"),
              1);
    EXPECT_NE(testing::readFile(out).find("storage_unavailable"), std::string::npos);
}

} // namespace
} // namespace tavelo::cloud
