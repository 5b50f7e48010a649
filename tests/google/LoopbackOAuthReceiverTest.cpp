// The loopback receiver: its state machine over a scripted listener and a
// clock the test fires, and the real TCP listener with real sockets.

#include "GoogleTestSupport.h"

#include "google/LoopbackOAuthReceiver.h"

#include <QTcpSocket>

using namespace tavelo;
using namespace tavelo::testing;
using Kind = LoopbackOAuthReceiverError::Kind;
using Phase = LoopbackOAuthReceiver::Phase;

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

// A listener whose events the test delivers by hand.
class ScriptedListener final : public LoopbackListenerSession {
public:
    QCoro::Task<std::uint16_t> start(std::stop_token stop) override {
        ++starts;
        if (startFailure) std::rethrow_exception(startFailure);
        if (holdStart) {
            Continuation<bool> c;
            startGate = c;
            co_await c;
        }
        co_return port;
    }
    QCoro::Task<QByteArray> receive(std::stop_token stop) override {
        Continuation<std::optional<QByteArray>> c;
        incoming = c;
        std::stop_callback onStop(stop, [this] { cancel(); });
        auto bytes = co_await c;
        if (!bytes) throw CancellationError();
        co_return *bytes;
    }
    QCoro::Task<void> sendResponse(QByteArray bytes, std::stop_token) override {
        sent.push_back(bytes);
        if (sendFails) throw LoopbackOAuthReceiverError(Kind::listenerUnavailable);
        co_return;
    }
    void cancel() override {
        ++cancels;
        if (incoming) incoming->resume(std::nullopt);
    }
    void deliver(const QByteArray& request) {
        if (incoming) incoming->resume(request);
    }

    std::uint16_t port = 50123;
    int starts = 0;
    int cancels = 0;
    bool holdStart = false;
    bool sendFails = false;
    std::exception_ptr startFailure;
    std::optional<Continuation<bool>> startGate;
    std::optional<Continuation<std::optional<QByteArray>>> incoming;
    std::vector<QByteArray> sent;
};

QByteArray get(const QByteArray& target) { return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"; }

class ReceiverStateTest : public ::testing::Test {
protected:
    ReceiverStateTest() : clock(std::make_shared<ManualTimeoutClock>()) { fresh(); }

    // A new receiver over a new listener.
    void fresh() {
        listener = std::make_shared<ScriptedListener>();
        receiver = LoopbackOAuthReceiver::make([this] { return listener; }, clock);
    }
    void turn() { LocalHttpServer::waitUntil([] { return false; }, 10); }

    std::shared_ptr<ScriptedListener> listener;
    std::shared_ptr<ManualTimeoutClock> clock;
    std::shared_ptr<LoopbackOAuthReceiver> receiver;
};

} // namespace

// One request, its page and the teardown over real sockets: TcpReceiverTest.
TEST_F(ReceiverStateTest, EachStepHappensOnce) {
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->waitForCallback("s")); }, Kind::notStarted);
    EXPECT_EQ(syncWait(receiver->start()), QUrl("http://127.0.0.1:50123/oauth/callback"));
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->start()); }, Kind::alreadyStarted);

    auto wait = receiver->waitForCallback("state-1");
    EXPECT_EQ(clock->requested, 300.0);
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->waitForCallback("state-1")); },
                                            Kind::callbackAlreadyConsumed);
    listener->deliver(get("/oauth/callback?state=state-1&code=4%2F0Ab"));
    EXPECT_EQ(syncWait(wait), QStringLiteral("4/0Ab"));
    EXPECT_EQ(receiver->phase(), Phase::terminated);
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->start()); }, Kind::callbackAlreadyConsumed);
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->waitForCallback("state-1")); },
                                            Kind::callbackAlreadyConsumed);
    EXPECT_EQ(listener->starts, 1);
}

TEST_F(ReceiverStateTest, FailuresAfterTheRequestEndWithTheFailurePage) {
    // A redirect for another sign-in. (The request line's and the redirect's
    // own rules are tested where they are decided.)
    syncWait(receiver->start());
    auto wait = receiver->waitForCallback("s");
    listener->deliver(get("/oauth/callback?state=other&code=c"));
    expectError<OAuthCallbackError>([&] { syncWait(wait); }, OAuthCallbackError::Kind::stateMismatch);
    EXPECT_EQ(listener->sent, std::vector<QByteArray>{loopbackResponse(false)});
    EXPECT_GE(listener->cancels, 1);
    EXPECT_EQ(receiver->phase(), Phase::terminated);

    // A success page that cannot be delivered fails the attempt as well.
    fresh();
    listener->sendFails = true;
    syncWait(receiver->start());
    auto undelivered = receiver->waitForCallback("s");
    listener->deliver(get("/oauth/callback?state=s&code=c"));
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(undelivered); }, Kind::listenerUnavailable);
    EXPECT_EQ(listener->sent, (std::vector<QByteArray>{loopbackResponse(true), loopbackResponse(false)}));
}

TEST_F(ReceiverStateTest, TimeoutAndCancellationSendNoPage) {
    syncWait(receiver->start());
    auto timed = receiver->waitForCallback("s");
    clock->fire();
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(timed); }, Kind::timedOut);
    EXPECT_TRUE(listener->sent.empty());
    EXPECT_EQ(receiver->phase(), Phase::terminated);

    for (bool byReceiver : {true, false}) {
        fresh();
        syncWait(receiver->start());
        std::stop_source stop;
        auto wait = receiver->waitForCallback("s", stop.get_token());
        turn();
        if (byReceiver)
            receiver->cancel();
        else
            stop.request_stop();
        EXPECT_THROW(syncWait(wait), CancellationError);
        EXPECT_TRUE(listener->sent.empty());
        EXPECT_GE(listener->cancels, 1);
    }
}

TEST_F(ReceiverStateTest, StartFailuresAndCancellationsTerminate) {
    receiver->cancel();
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->start()); }, Kind::callbackAlreadyConsumed);
    EXPECT_EQ(listener->starts, 0);

    fresh();
    listener->startFailure = std::make_exception_ptr(LoopbackOAuthReceiverError(Kind::listenerUnavailable));
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->start()); }, Kind::listenerUnavailable);
    EXPECT_EQ(receiver->phase(), Phase::terminated);
    EXPECT_EQ(listener->cancels, 1);

    // A cancel that overtakes a start still in progress wins.
    fresh();
    listener->holdStart = true;
    auto starting = receiver->start();
    receiver->cancel();
    listener->startGate->resume(true);
    EXPECT_THROW(syncWait(starting), CancellationError);
    EXPECT_EQ(receiver->phase(), Phase::terminated);
    EXPECT_GE(listener->cancels, 1);

    receiver = LoopbackOAuthReceiver::make([]() -> std::shared_ptr<LoopbackListenerSession> {
        throw LoopbackOAuthReceiverError(Kind::listenerUnavailable);
    }, clock);
    expectError<LoopbackOAuthReceiverError>([&] { syncWait(receiver->start()); }, Kind::listenerUnavailable);
    EXPECT_EQ(receiver->phase(), Phase::terminated);
}

TEST(LoopbackRequestTest, OnlyAWellFormedGetLineBecomesAURL) {
    EXPECT_EQ(loopbackCallbackURL("GET /oauth/callback?a=b HTTP/1.0\r\nHost: evil.example\r\n\r\n"),
              QUrl("http://127.0.0.1/oauth/callback?a=b"));
    for (const QByteArray& bad : {QByteArray("POST /x HTTP/1.1\r\n\r\n"), QByteArray("GET /x HTTP/2\r\n\r\n"),
                                 QByteArray("GET  /x HTTP/1.1\r\n\r\n"), QByteArray("GET /x?c=\xff HTTP/1.1\r\n\r\n"),
                                 QByteArray("GET /x HTTP/1.1 extra\r\n\r\n"), QByteArray("GET /x\r\n\r\n"),
                                 QByteArray("get /x HTTP/1.1\r\n\r\n"), QByteArray("GET x HTTP/1.1\r\n\r\n"),
                                 QByteArray("GET  HTTP/1.1\r\n\r\n"), QByteArray("GET /x HTTP/1.1 \r\n\r\n"),
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

    const QByteArray page = loopbackResponse(true);
    const qsizetype bodyStart = page.indexOf("\r\n\r\n") + 4;
    EXPECT_TRUE(page.startsWith("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: "));
    EXPECT_EQ(page.mid(bodyStart).size(), page.mid(page.indexOf("Length: ") + 8).split('\r').first().toInt());
    EXPECT_TRUE(loopbackResponse(false).startsWith("HTTP/1.1 400 Bad Request\r\n"));
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

    // A request of exactly the limit is still a request.
    const quint16 port = start();
    auto wait = receiver->waitForCallback("st");
    QByteArray limit = get("/oauth/callback?state=st&code=c");
    limit.insert(limit.size() - 2, "X-Pad: " + QByteArray(kLoopbackRequestLimit - limit.size() - 9, 'p') + "\r\n");
    RawClient client(port);
    client.send(limit, 5);
    EXPECT_EQ(syncWait(wait), QStringLiteral("c"));

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
