#include "Crypto.h"
#include "Mailer.h"
#include "ServerProcess.h"

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

namespace tavelo::cloud {
namespace {

using testing::readFile;

// A one-connection SMTP relay that answers RCPT with `rcptReply` and keeps
// what it was given after DATA.
class FakeRelay {
public:
    explicit FakeRelay(std::string rcptReply) : rcptReply_(std::move(rcptReply)) {
        listener_ = testing::listenOnLoopback(port_, 1);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeRelay() {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }
    std::string url() const { return "smtp://127.0.0.1:" + std::to_string(port_); }
    std::string data;
    std::string commands;

private:
    void serve() {
        const int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0) return;
        auto say = [&](const std::string& text) { ::send(fd, text.data(), text.size(), MSG_NOSIGNAL); };
        say("220 relay ready\r\n");
        std::string buffer;
        bool inData = false;
        char chunk[4096];
        for (ssize_t n; (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) {
            buffer.append(chunk, static_cast<std::size_t>(n));
            for (std::size_t end; (end = buffer.find(inData ? "\r\n.\r\n" : "\r\n")) != std::string::npos;) {
                if (inData) {
                    data = buffer.substr(0, end + 2);
                    buffer.erase(0, end + 5);
                    inData = false;
                    say("250 queued\r\n");
                    continue;
                }
                const std::string line = buffer.substr(0, end);
                buffer.erase(0, end + 2);
                commands += line + "\n";
                if (line.starts_with("EHLO")) say("250-relay\r\n250 8BITMIME\r\n");
                else if (line.starts_with("RCPT")) say(rcptReply_ + "\r\n");
                else if (line == "DATA") {
                    say("354 go on\r\n");
                    inData = true;
                } else if (line == "QUIT") {
                    say("221 bye\r\n");
                    ::close(fd);
                    return;
                } else say("250 ok\r\n");
            }
        }
        ::close(fd);
    }
    std::string rcptReply_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

TEST(Mailer, RelayGetsTheMailAndARefusalOrAnAbsentRelayFallsBackToTheSpool) {
    crypto::initialise();
    testing::TemporaryDirectory directory;
    const std::string spool = directory.path() + "/spool.txt";
    {
        FakeRelay relay("250 ok");
        Mailer mailer(spool, relay.url(), "cloud@example.jp");
        mailer.send("user@example.jp", "Tavelo: パスワードの再設定", "Line one\n.hidden dot\nコード: abc\n");
        EXPECT_NE(relay.commands.find("MAIL FROM:<cloud@example.jp>"), std::string::npos);
        EXPECT_NE(relay.commands.find("RCPT TO:<user@example.jp>"), std::string::npos);
        EXPECT_NE(relay.data.find("\r\n..hidden dot\r\n"), std::string::npos) << relay.data;
        EXPECT_NE(relay.data.find("Subject: =?UTF-8?B?" + crypto::base64Encode("Tavelo: パスワードの再設定") + "?="),
                  std::string::npos);
        EXPECT_NE(relay.data.find("コード: abc"), std::string::npos);
    }
    EXPECT_TRUE(readFile(spool).empty());
    {
        FakeRelay refusing("550 no such user");
        Mailer mailer(spool, refusing.url());
        mailer.send("user@example.jp", "subject", "kept in the spool");
    }
    EXPECT_NE(readFile(spool).find("kept in the spool"), std::string::npos);
    Mailer nobodyListening(spool, "smtp://127.0.0.1:" + std::to_string(testing::freePort()));
    nobodyListening.send("user@example.jp", "subject", "also kept");
    EXPECT_NE(readFile(spool).find("also kept"), std::string::npos);
}

} // namespace
} // namespace tavelo::cloud
