// The loopback receiver: the request line's rules, and the real TCP listener
// with real sockets and a clock the test fires.

#include "GoogleTestSupport.h"

#include "google/LoopbackOAuthReceiver.h"

#include <QTcpSocket>

using namespace tavelo;
using namespace tavelo::testing;
using Kind = LoopbackOAuthReceiverError::Kind;

namespace {

// A time limit that passes only when the test says so.
class ManualTimeoutClock final : public OAuthTimeoutClock {
public:
    QCoro::Task<void> sleep(double seconds, std::stop_token stop) override {
        requested = seconds;
        Continuation<bool> fired;
        pending = fired;
        std::stop_callback onStop(stop, [fired]() mutable { fired.resume(false); });
        const bool timeUp = co_await fired;
        if (!timeUp) throw CancellationError();
    }
    void fire() {
        if (pending) pending->resume(true);
    }
    double requested = 0;
    std::optional<Continuation<bool>> pending;
};

QByteArray get(const QByteArray& target) { return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"; }

} // namespace

TEST(LoopbackRequestTest, OnlyAWellFormedGetLineBecomesAURL) {
    EXPECT_EQ(loopbackCallbackURL("GET /oauth/callback?a=b HTTP/1.0\r\nHost: evil.example\r\n\r\n"),
              QUrl("http://127.0.0.1/oauth/callback?a=b"));
    for (const QByteArray& bad : {QByteArray("POST /x HTTP/1.1\r\n\r\n"), QByteArray("GET /x HTTP/2\r\n\r\n"),
                                 QByteArray("GET  /x HTTP/1.1\r\n\r\n"), QByteArray("GET /x?c=\xff HTTP/1.1\r\n\r\n"),
                                 QByteArray("GET /x HTTP/1.1 extra\r\n\r\n"), QByteArray("GET /x\r\n\r\n"),
                                 QByteArray("get /x HTTP/1.1\r\n\r\n"), QByteArray("GET x HTTP/1.1\r\n\r\n"),
                                 QByteArray("GET /a\tb HTTP/1.1\r\n\r\n"), QByteArray("GET /a b HTTP/1.1\r\n\r\n"),
                                 QByteArray("\xc3\x28 /x HTTP/1.1\r\n\r\n")}) {
        SCOPED_TRACE(bad.toStdString());
        expectError<LoopbackOAuthReceiverError>([&] { loopbackCallbackURL(bad); }, Kind::invalidRequest);
    }
    // A target that looks like another host stays a path on the loopback address.
    expectError<OAuthCallbackError>(
        [&] { OAuthCallback::parse(loopbackCallbackURL(get("//evil.example/oauth/callback?state=s&code=c")), "s"); },
        OAuthCallbackError::Kind::invalidPath);
    QByteArray limit = get("/oauth/callback?state=s&code=c");
    limit.insert(limit.size() - 2, "X-Pad: " + QByteArray(kLoopbackRequestLimit - limit.size() - 9, 'p') + "\r\n");
    ASSERT_EQ(limit.size(), kLoopbackRequestLimit);
    EXPECT_EQ(OAuthCallback::parse(loopbackCallbackURL(limit), "s"), QStringLiteral("c"));
    expectError<LoopbackOAuthReceiverError>([&] { loopbackCallbackURL(limit + "x"); }, Kind::invalidRequest);
}

namespace {

// A client on a real socket that writes in pieces and reads until closed.
struct RawClient {
    QTcpSocket socket;
    QByteArray received;

    explicit RawClient(quint16 port) {
        QObject::connect(&socket, &QTcpSocket::readyRead, [this] { received += socket.readAll(); });
        socket.connectToHost(QHostAddress::LocalHost, port);
        LocalHttpServer::waitUntil([this] {
            return socket.state() != QAbstractSocket::ConnectingState && socket.state() != QAbstractSocket::HostLookupState;
        }, 2000);
    }
    void send(const QByteArray& bytes, int pieces = 1) {
        const qsizetype step = std::max<qsizetype>(1, bytes.size() / pieces);
        for (qsizetype at = 0; at < bytes.size(); at += step) {
            socket.write(bytes.mid(at, step));
            socket.flush();
            LocalHttpServer::waitUntil([] { return false; }, 2);
        }
    }
    bool waitClosed() {
        return LocalHttpServer::waitUntil([this] { return socket.state() == QAbstractSocket::UnconnectedState; }, 3000);
    }
};

class TcpReceiverTest : public ::testing::Test {
protected:
    TcpReceiverTest() : clock(std::make_shared<ManualTimeoutClock>()) {}

    quint16 start() {
        receiver = LoopbackOAuthReceiver::make(makeTcpLoopbackListenerSession, clock);
        const QUrl url = syncWait(receiver->start());
        EXPECT_EQ(url.host(), QStringLiteral("127.0.0.1"));
        EXPECT_EQ(url.path(), QStringLiteral("/oauth/callback"));
        return static_cast<quint16>(url.port());
    }
    bool portIsClosed(quint16 port) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        return !probe.waitForConnected(500);
    }

    std::shared_ptr<ManualTimeoutClock> clock;
    std::shared_ptr<LoopbackOAuthReceiver> receiver;
};

} // namespace

TEST_F(TcpReceiverTest, ReassemblesOneRequestIgnoresEverythingElseAndCloses) {
    const quint16 port = start();
    auto wait = receiver->waitForCallback("st");
    EXPECT_EQ(clock->requested, 300.0);
    RawClient browser(port);
    RawClient intruder(port);
    EXPECT_TRUE(intruder.waitClosed());
    EXPECT_TRUE(intruder.received.isEmpty());
    browser.send(get("/oauth/callback?state=st&code=4%2F0A-b") + get("/favicon.ico"), 40);
    EXPECT_EQ(syncWait(wait), QStringLiteral("4/0A-b"));
    EXPECT_TRUE(browser.waitClosed());
    EXPECT_EQ(browser.received, loopbackResponse(true));
    EXPECT_TRUE(portIsClosed(port));
}

TEST_F(TcpReceiverTest, HostileClientsEndTheWaitWithAnErrorAndNoCrash) {
    struct Case {
        const char* name;
        std::function<void(RawClient&)> act;
        Kind expected;
        bool pageExpected;
    };
    const std::vector<Case> cases{
        {"port scan", [](RawClient& c) { c.socket.disconnectFromHost(); }, Kind::invalidRequest, false},
        {"request line only", [](RawClient& c) {
             c.send("GET /oauth/callback?state=st&code=c HTTP/1.1\r\n");
             c.socket.disconnectFromHost();
         }, Kind::invalidRequest, false},
        {"oversized head", [](RawClient& c) { c.send("GET /" + QByteArray(kLoopbackRequestLimit + 10, 'a'), 8); },
         Kind::invalidRequest, false},
        {"post", [](RawClient& c) { c.send("POST /oauth/callback?state=st&code=c HTTP/1.1\r\n\r\n"); },
         Kind::invalidRequest, true},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.name);
        const quint16 port = start();
        auto wait = receiver->waitForCallback("st");
        RawClient client(port);
        item.act(client);
        expectError<LoopbackOAuthReceiverError>([&] { syncWait(wait); }, item.expected);
        client.waitClosed();
        EXPECT_EQ(client.received, item.pageExpected ? loopbackResponse(false) : QByteArray());
        EXPECT_TRUE(portIsClosed(port));
    }

    // A redirect for another sign-in ends the wait with the failure page.
    const quint16 forgedPort = start();
    auto forged = receiver->waitForCallback("st");
    RawClient forger(forgedPort);
    forger.send(get("/oauth/callback?state=other&code=c"));
    expectError<OAuthCallbackError>([&] { syncWait(forged); }, OAuthCallbackError::Kind::stateMismatch);
    forger.waitClosed();
    EXPECT_EQ(forger.received, loopbackResponse(false));

    // A silent connection holds the line until the time limit.
    const quint16 slowPort = start();
    auto slow = receiver->waitForCallback("st");
    RawClient idle(slowPort);
    idle.send("GET /oauth/call");
    clock->fire();
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(slow); }, Kind::timedOut);
    EXPECT_TRUE(idle.waitClosed());
    EXPECT_TRUE(portIsClosed(slowPort));
}
