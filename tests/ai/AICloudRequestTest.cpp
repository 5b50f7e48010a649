// The common request path and the schedule routes, against real HTTP
// servers on 127.0.0.1.

#include "CloudTestSupport.h"

#include "support/JsonWriter.h"

#include <QFile>

using namespace tavelo;
using namespace tavelo::testing;

namespace {

const QByteArray kStateJSON = R"({"schedules":[{"id":"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11","title":"朝のまとめ",
    "prompt":"要約して","firstRun":1767258000,"timeZoneID":"Asia/Tokyo","recurrence":"daily","isPaused":false}],
    "runs":[{"id":"run-1","scheduleID":"6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11","scheduledAt":1767258000,
    "startedAt":1767258001.25,"status":"complete","output":"完了しました"}]})";

const UUID kScheduleID = UUID::literal("6F1C2A9E-4B1D-4F0A-9C53-2E7D8B1A0C11");

} // namespace

using CloudRequestTest = CloudStoreTest;

TEST_F(CloudRequestTest, ScheduleRoutesCarryTheBearerAndRefreshAfterwards) {
    auto store = connectedStore();
    privateServer.route("GET", "/v1/state", CannedResponse::json(200, kStateJSON));
    privateServer.route("PUT", "/v1/schedules", [](const RecordedRequest& r) {
        return std::optional(CannedResponse::json(200, r.body)); // the server echoes what it stored
    });
    privateServer.route("POST", "/v1/run", CannedResponse::json(200, R"({"status":"queued"})"));
    const QByteArray deletePath = "/v1/schedules/" + kScheduleID.toString().toLower().toUtf8();
    privateServer.route("DELETE", deletePath, CannedResponse::json(200, R"({"status":"deleted"})"));

    syncWait(store->refresh());
    ASSERT_EQ(store->state().schedules.size(), 1u);
    EXPECT_EQ(store->state().schedules[0].firstRun, Date::fromUnixSeconds(1767258000));
    EXPECT_EQ(store->state().runs[0].startedAt, Date::fromUnixSeconds(1767258001.25));
    EXPECT_EQ(store->latestRun(kScheduleID)->output, "完了しました");
    const auto get = privateServer.last("GET", "/v1/state");
    EXPECT_EQ(get.header("authorization"), "Bearer " + kOwnerKey.toUtf8());
    EXPECT_EQ(get.header("content-type"), "application/json");
    EXPECT_FALSE(store->isRefreshing());

    auto edited = store->state().schedules[0];
    edited.title = "夜のまとめ";
    syncWait(store->save(edited));
    EXPECT_EQ(AISchedule::fromCloudJson(privateServer.last("PUT", "/v1/schedules").body.toStdString()), edited);
    syncWait(store->runNow(kScheduleID));
    EXPECT_EQ(privateServer.last("POST", "/v1/run").body,
              R"({"scheduleID":")" + kScheduleID.toString().toLower().toUtf8() + R"("})");
    syncWait(store->deleteSchedule(kScheduleID));
    EXPECT_EQ(privateServer.count("DELETE", deletePath), 1);
    // Each change is followed by a refresh; nothing is changed locally.
    EXPECT_EQ(privateServer.count("GET", "/v1/state"), 4);
}

TEST_F(CloudRequestTest, UnsuccessfulRepliesBecomeCloudErrorsWithTheirStatus) {
    auto store = connectedStore();
    struct Case {
        CannedResponse response;
        QString message;
    };
    const std::vector<Case> cases = {
        {CannedResponse::json(500, R"({"error":"サーバーが混雑しています。"})"), "サーバーが混雑しています。"},
        {CannedResponse::html(500, "<html><body><h1>500 Internal Server Error</h1></body></html>"),
         "クラウドへ接続できませんでした。"},
        {CannedResponse::json(400, R"({"error":"bad","retryAfter":5})"), "クラウドへ接続できませんでした。"},
        {CannedResponse::json(404, ""), "クラウドへ接続できませんでした。"},
        {CannedResponse::json(403, R"({"error":"プランの上限です。"})"), "プランの上限です。"},
    };
    for (const auto& c : cases) {
        privateServer.route("GET", "/v1/probe", c.response);
        const auto failure = failureOf(store->send<CloudStringMap>("GET", "probe"));
        EXPECT_EQ(messageOf(failure), c.message) << c.response.body.constData();
        EXPECT_EQ(httpStatusOf(failure), c.response.status);
    }
    // A successful status with a body that is not the expected record fails
    // too, and leaves the known state alone.
    privateServer.route("GET", "/v1/state", CannedResponse::json(200, kStateJSON));
    syncWait(store->refresh());
    const auto known = store->state();
    for (const QByteArray& body : {QByteArray(R"({"schedules":5,"runs":[]})"), QByteArray(R"({"schedules":[)"),
                                  QByteArray("<html>maintenance</html>")}) {
        privateServer.route("GET", "/v1/state", CannedResponse::json(200, body));
        syncWait(store->refresh());
        EXPECT_EQ(store->state(), known);
        EXPECT_TRUE(store->errorMessage()) << body.constData();
    }
    privateServer.route("GET", "/v1/state", CannedResponse::json(200, kStateJSON));
    syncWait(store->refresh());
    EXPECT_EQ(store->errorMessage(), std::nullopt);
}

TEST_F(CloudRequestTest, RedirectIsReturnedAsAFailureAndNeverFollowed) {
    auto store = connectedStore();
    privateServer.route("GET", "/v1/state",
                        CannedResponse{302, {{"Location", (privateServer.baseUrl() + "/v1/elsewhere").toUtf8()}}, ""});
    privateServer.route("GET", "/v1/elsewhere", CannedResponse::json(200, kStateJSON));
    const auto failure = failureOf(store->send<AICloudState>("GET", "state"));
    EXPECT_EQ(messageOf(failure), "クラウドへ接続できませんでした。");
    EXPECT_EQ(httpStatusOf(failure), 302);
    EXPECT_EQ(privateServer.count("GET", "/v1/elsewhere"), 0);
}

TEST_F(CloudRequestTest, RequestsWithoutSessionOrUsableEndpointNeverLeave) {
    auto store = makeStore();
    EXPECT_EQ(messageOf(failureOf(store->send<AICloudState>("GET", "state"))), "設定でAI Cloudに接続してください。");
    // "session" may go out without one, but not to an empty or broken base.
    EXPECT_EQ(messageOf(failureOf(store->send<TaveloSession>("GET", "session"))), "設定でAI Cloudに接続してください。");
    EXPECT_EQ(messageOf(failureOf(store->send<TaveloSession>("GET", "session", std::nullopt, QString("not a url"),
                                                             QString("token")))),
              "設定でAI Cloudに接続してください。");
    syncWait(store->refresh()); // quietly nothing
    EXPECT_EQ(store->errorMessage(), std::nullopt);
    EXPECT_TRUE(privateServer.requests().empty());
}

TEST_F(CloudRequestTest, ReplyArrivingAfterSignOutIsDropped) {
    auto store = connectedStore();
    privateServer.hold("GET", "/v1/state");
    auto refresh = store->refresh();
    auto direct = store->send<AICloudState>("GET", "state");
    ASSERT_TRUE(LocalHttpServer::waitUntil([&] { return privateServer.heldCount() == 2; }));
    EXPECT_TRUE(store->isRefreshing());

    syncWait(store->disconnect());
    ASSERT_TRUE(privateServer.answerOldestHeld(CannedResponse::json(200, kStateJSON)));
    ASSERT_TRUE(privateServer.answerOldestHeld(CannedResponse::json(200, kStateJSON)));
    syncWait(refresh);
    EXPECT_TRUE(isCancellation(failureOf(std::move(direct))));
    EXPECT_TRUE(store->state().schedules.empty());
    EXPECT_EQ(store->errorMessage(), std::nullopt);
    EXPECT_FALSE(store->isRefreshing());
    EXPECT_FALSE(store->session());
}

TEST_F(CloudRequestTest, StoppedRequestIsAbortedAtOnce) {
    auto store = connectedStore();
    privateServer.hold("GET", "/v1/state");
    std::stop_source stop;
    auto task = store->send<AICloudState>("GET", "state", std::nullopt, std::nullopt, std::nullopt, stop.get_token());
    ASSERT_TRUE(LocalHttpServer::waitUntil([&] { return privateServer.heldCount() == 1; }));
    stop.request_stop();
    EXPECT_TRUE(isCancellation(failureOf(std::move(task))));
    // The transport hung up: the held exchange has no client any more.
    EXPECT_TRUE(LocalHttpServer::waitUntil(
        [&] { return !privateServer.answerOldestHeld(CannedResponse::json(200, "{}")); }, 2000));
}

TEST_F(CloudRequestTest, CacheIsWrittenAndAnUnreadableOneIsIgnored) {
    auto store = connectedStore();
    privateServer.route("GET", "/v1/state", CannedResponse::json(200, kStateJSON));
    syncWait(store->refresh());
    const QString path = *store->cacheFilePath();
    EXPECT_TRUE(path.endsWith("/users/" + *store->workspaceID() + "/ai-cloud-cache.json")) << path.toStdString();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(AICloudState::fromCloudJson(file.readAll().toStdString()), store->state());
    file.close();

    // The next sign-in shows the cached schedules before any refresh.
    const auto cached = store->state();
    auto second = connectedStore();
    EXPECT_EQ(second->state(), cached);

    for (const QByteArray& damage : {QByteArray("{\"schedules\":[{\"id\":"), QByteArray("\xff\xfe\x00garbage", 10),
                                    QByteArray()}) {
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(damage);
        file.close();
        auto restarted = connectedStore();
        EXPECT_TRUE(restarted->state().schedules.empty());
        EXPECT_EQ(restarted->errorMessage(), std::nullopt);
    }
}

TEST_F(CloudRequestTest, FailedCacheWriteIsAFailedRefresh) {
    auto store = connectedStore();
    // Put a file where the workspace folder should be.
    const QString folder = QFileInfo(*store->cacheFilePath()).absolutePath();
    ASSERT_TRUE(QDir().mkpath(QFileInfo(folder).absolutePath()));
    QFile blocker(folder);
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();

    privateServer.route("GET", "/v1/state", CannedResponse::json(200, kStateJSON));
    syncWait(store->refresh());
    EXPECT_EQ(store->errorMessage(), QString("AI Scheduleのキャッシュを保存できませんでした。"));
    EXPECT_EQ(store->state().schedules.size(), 1u);
    EXPECT_FALSE(store->isRefreshing());
}

TEST(NetworkHTTPTransportTest, TimeoutAndNonHTTPReplies) {
    LocalHttpServer server;
    server.hold("GET", "/slow");
    NetworkHTTPTransport transport;
    HTTPRequest request;
    request.url = QUrl(server.baseUrl() + "/slow");
    request.timeout = 0.3;
    try {
        syncWait(transport.send(request));
        ADD_FAILURE() << "a held request returned";
    } catch (const HTTPTransportError& error) {
        EXPECT_EQ(error.kind(), HTTPTransportError::Kind::timedOut);
    }

    // A reply that is not HTTP (a local file) has no status.
    QTemporaryDir folder;
    QFile file(folder.filePath("reply.json"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("{}");
    file.close();
    request.url = QUrl::fromLocalFile(file.fileName());
    const auto response = syncWait(transport.send(request));
    EXPECT_EQ(response.status, std::nullopt);
    EXPECT_EQ(response.body, "{}");

    // Nobody listening: a transport failure with its own English text.
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
    const QString url = QStringLiteral("http://127.0.0.1:%1/x").arg(probe.serverPort());
    probe.close();
    request.url = QUrl(url);
    try {
        syncWait(transport.send(request));
        ADD_FAILURE() << "a closed port answered";
    } catch (const HTTPTransportError& error) {
        EXPECT_EQ(error.kind(), HTTPTransportError::Kind::network);
        EXPECT_TRUE(error.errorDescription()->startsWith("The network connection failed"));
    }
}
