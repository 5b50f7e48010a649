// The store's Google actions: the frame every action runs in, browser
// authentication, the automatic refresh, the failure messages and their
// retries; and end to end through AppStore with the real local store and the
// loopback Calendar stand-ins.

#include "google/GoogleAccessTokenProvider.h"
#include "google/FixedTokenProvider.h"
#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarStandIn.h"
#include "services/GoogleCalendarService.h"
#include "services/LocalCalendarService.h"
#include "stores/AppStore.h"
#include "stores/ScriptedGoogle.h"
#include "support/FailureOf.h"
#include "support/HTTPTransport.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <deque>

#include <gtest/gtest.h>

namespace tavelo::test {
namespace {

using testing::CannedResponse;
using testing::GoogleCalendarStandIn;
using testing::LocalHttpServer;

const QString kSyncFailed = QStringLiteral("Googleカレンダーを同期できませんでした。接続を確認して、もう一度お試しください。");
const QString kReconnect = QStringLiteral("Googleアカウントを再接続してください。");
const QString kAuthenticationCancelled = QStringLiteral("Google認証をキャンセルしました。もう一度お試しください。");

// Runs the event loop until `done` holds or five seconds have passed.
bool settle(const std::function<bool()>& done) { return LocalHttpServer::waitUntil(done, 5000); }

// --- The frame, against a scripted Google side ---------------------------

class GoogleStoreFrameTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    const UUID work = uuid(1), home = uuid(2), plain = uuid(3);
    std::shared_ptr<ScriptedGoogle> google;
    std::unique_ptr<AppStore> store;

    // Two Google accounts and a local one.
    AppStore& openWithTwoGoogleAccounts() {
        AppSnapshot initial = AppSnapshot::empty();
        initial.accounts = {Account{.id = work, .isConnected = true, .googleSubject = "w"},
                            Account{.id = home, .isConnected = true, .googleSubject = "h"},
                            Account{.id = plain, .name = "Local"}};
        const QString path = dir.filePath("state.sqlite");
        syncWait(LocalCalendarService(path).save(initial));
        google = std::make_shared<ScriptedGoogle>(std::make_shared<LocalCalendarService>(path));
        store = std::make_unique<AppStore>(google, google, dir.filePath("google-oauth.json"), tokyo());
        syncWait(store->load());
        return *store;
    }
    std::optional<StoreRetryOperation> retry() const { return store->retryOperation(); }
};

TEST_F(GoogleStoreFrameTest, AutomaticRefreshIsThrottledToOnceInFiveMinutesFailedOrNot) {
    auto& store = openWithTwoGoogleAccounts();
    const Date start = monday(9);
    google->failure = std::make_exception_ptr(std::runtime_error("offline"));
    EXPECT_FALSE(syncWait(store.refreshGoogleAccountsIfNeeded(start)));
    EXPECT_EQ(google->calls, std::vector<QString>{"syncAll"});

    // The failed attempt counts: 299 seconds later nothing happens.
    google->failure = nullptr;
    EXPECT_FALSE(syncWait(store.refreshGoogleAccountsIfNeeded(start.addingSeconds(299))));
    EXPECT_EQ(google->calls.size(), 1u);
    // Exactly 300 seconds passes.
    EXPECT_TRUE(syncWait(store.refreshGoogleAccountsIfNeeded(start.addingSeconds(300))));
    EXPECT_EQ(google->calls.size(), 2u);
    EXPECT_FALSE(store.hasLastError());
}

TEST_F(GoogleStoreFrameTest, OneActionAtATimeAndTheFirstSyncFollowsAReconnect) {
    auto& store = openWithTwoGoogleAccounts();
    google->holdBrowser = true;
    auto authentication = store.beginGoogleAuthentication(GoogleAuthenticationRequest::reconnect(work));
    ASSERT_TRUE(authentication);
    EXPECT_TRUE(store.isSyncing());
    // Everything else waits its turn: nothing starts meanwhile.
    EXPECT_FALSE(store.beginGoogleAuthentication(GoogleAuthenticationRequest::connect()));
    EXPECT_FALSE(syncWait(store.syncAllGoogleAccounts()));
    EXPECT_FALSE(syncWait(store.refreshGoogleAccounts()));
    ASSERT_TRUE(settle([&] { return !google->browsers.empty(); }));
    google->browsers.front().resume(true);
    EXPECT_TRUE(syncWait(authentication->result()));
    syncWait(store.prepareForLogout());
    EXPECT_EQ(google->calls, (std::vector<QString>{"reconnect", "sync"})) << "the first sync follows by itself";
}

TEST_F(GoogleStoreFrameTest, EveryFailureHasItsMessageAndRetry) {
    auto& store = openWithTwoGoogleAccounts();
    const auto fail = [&](std::map<UUID, GoogleSyncStatus> after) {
        google->failure = std::make_exception_ptr(std::runtime_error("refused"));
        google->statusesAfterFailure = std::move(after);
    };
    const auto authenticate = [&](GoogleAuthenticationRequest request) {
        auto task = store.beginGoogleAuthentication(request);
        ASSERT_TRUE(task);
        EXPECT_FALSE(syncWait(task->result()));
        EXPECT_FALSE(store.isSyncing());
    };

    fail({});
    EXPECT_FALSE(syncWait(store.syncGoogleAccount(work)));
    EXPECT_EQ(retry(), StoreRetryOperation::syncGoogleAccount(work));
    EXPECT_FALSE(syncWait(store.syncAllGoogleAccounts()));
    EXPECT_EQ(store.lastError(), kSyncFailed);
    EXPECT_EQ(retry(), StoreRetryOperation::syncAllGoogleAccounts());
    authenticate(GoogleAuthenticationRequest::connect());
    EXPECT_EQ(store.lastError(), "Googleアカウントを接続できませんでした。ブラウザで認証をやり直してください。");
    EXPECT_EQ(retry(), StoreRetryOperation::connectGoogleAccount());
    authenticate(GoogleAuthenticationRequest::reconnect(work));
    EXPECT_EQ(store.lastError(), "Googleアカウントを再接続できませんでした。ブラウザで認証をやり直してください。");
    EXPECT_EQ(retry(), StoreRetryOperation::reconnectGoogleAccount(work));
    EXPECT_FALSE(syncWait(store.disconnectGoogleAccount(work)));
    EXPECT_EQ(store.lastError(), "Googleアカウントの接続を解除できませんでした。もう一度お試しください。");
    EXPECT_FALSE(store.canRetry());

    // Accounts that need a reconnect after the failure change the answer.
    fail({{work, GoogleSyncStatus::reconnectRequired}});
    EXPECT_FALSE(syncWait(store.syncGoogleAccount(work)));
    EXPECT_EQ(store.lastError(), kReconnect);
    EXPECT_EQ(retry(), StoreRetryOperation::reconnectGoogleAccount(work));
    EXPECT_FALSE(syncWait(store.syncAllGoogleAccounts()));
    EXPECT_EQ(store.lastError(), kReconnect);
    EXPECT_FALSE(store.canRetry()) << "which account to reconnect is the user's choice";
    authenticate(GoogleAuthenticationRequest::reconnect(work));
    EXPECT_EQ(store.lastError(), kReconnect);
    EXPECT_EQ(retry(), StoreRetryOperation::reconnectGoogleAccount(work));

    // Cancellations keep what was confirmed.
    google->failure = std::make_exception_ptr(CancellationError());
    EXPECT_FALSE(syncWait(store.syncAllGoogleAccounts()));
    EXPECT_EQ(store.lastError(), "Googleの操作をキャンセルしました。確認済みの同期結果は保持されています。");
    EXPECT_FALSE(store.canRetry());
    authenticate(GoogleAuthenticationRequest::connect());
    EXPECT_EQ(store.lastError(), kAuthenticationCancelled);
    EXPECT_EQ(retry(), StoreRetryOperation::connectGoogleAccount());
}

// --- End to end with the loopback stand-ins -----------------------------

using testing::FixedTokenProvider;

QJsonObject timed(const QString& id, const QString& summary, int day, int hour = 10) {
    const auto at = [&](int h) { return QStringLiteral("2026-12-%1T%2:00:00+09:00").arg(day, 2, 10, QChar('0')).arg(h, 2, 10, QChar('0')); };
    return QJsonObject{{"id", id},
                       {"summary", summary},
                       {"start", QJsonObject{{"dateTime", at(hour)}, {"timeZone", "Asia/Tokyo"}}},
                       {"end", QJsonObject{{"dateTime", at(hour + 1)}, {"timeZone", "Asia/Tokyo"}}}};
}

const QString kAlice = QStringLiteral("alice@example.com");
const QString kFamily = QStringLiteral("family@group.calendar.google.com");
const QString kBob = QStringLiteral("bob@work.example");

// The service of a workspace over `file`, its API clients on the stand-ins.
std::shared_ptr<GoogleCalendarService> makeService(const QString& file, std::deque<GoogleIdentity>* identities,
                                                   QUrl aliceURL, QUrl bobURL) {
    auto transport = std::make_shared<NetworkHTTPTransport>();
    GoogleCalendarService::Functions f;
    f.connectGoogleIdentity = [identities](std::stop_token) -> QCoro::Task<GoogleIdentity> {
        if (!identities || identities->empty()) throw CancellationError();
        GoogleIdentity identity = identities->front();
        identities->pop_front();
        co_return identity;
    };
    f.reconnectGoogleIdentity = [](QString subject, std::stop_token) -> QCoro::Task<GoogleIdentity> {
        GoogleIdentity identity{subject, subject == "sub-alice" ? kAlice : kBob, std::nullopt};
        co_return identity;
    };
    f.disconnectGoogleIdentity = [](QString) -> QCoro::Task<void> { co_return; };
    f.makeAPIClient = [transport, aliceURL, bobURL](const QString& subject) {
        const bool alice = subject == QLatin1String("sub-alice");
        return GoogleCalendarAPIClient(std::make_shared<FixedTokenProvider>(alice ? "alice-token" : "bob-token"),
                                       transport, [](double, std::stop_token) -> QCoro::Task<void> { co_return; },
                                       [] { return 0.0; }, alice ? aliceURL : bobURL);
    };
    return std::make_shared<GoogleCalendarService>(std::make_shared<LocalCalendarService>(file), std::move(f));
}

class GoogleStoreEndToEndTest : public ::testing::Test {
protected:
    GoogleStoreEndToEndTest() {
        aliceGoogle.acceptToken("alice-token");
        aliceGoogle.addCalendar(kAlice, "Alice", true);
        aliceGoogle.addCalendar(kFamily, "Family", false, "writer");
        bobGoogle.acceptToken("bob-token");
        bobGoogle.addCalendar(kBob, "Bob", true);
        for (int i = 0; i < 30; ++i) aliceGoogle.putEvent(kAlice, timed(QStringLiteral("alice%1").arg(i), "Alice work", 1 + i % 28));
        for (int i = 0; i < 5; ++i) aliceGoogle.putEvent(kFamily, timed(QStringLiteral("fam%1").arg(i), "Dinner", 1 + i, 19));
        for (int i = 0; i < 12; ++i) bobGoogle.putEvent(kBob, timed(QStringLiteral("bob%1").arg(i), "Bob meeting", 2 + i));
        reopen();
    }

    void reopen() {
        store.reset();
        service = makeService(path, &identities, aliceGoogle.baseURL(), bobGoogle.baseURL());
        store = std::make_unique<AppStore>(service, service, dir.filePath("google-oauth.json"), tokyo());
        syncWait(store->load());
    }

    // Connects through the browser and waits for the first sync that follows.
    Account connect() {
        const auto before = store->accounts().size();
        auto task = store->beginGoogleAuthentication(GoogleAuthenticationRequest::connect());
        if (!task) {
            ADD_FAILURE() << "no authentication started";
            return Account{};
        }
        EXPECT_TRUE(syncWait(task->result()));
        syncWait(store->prepareForLogout());
        EXPECT_EQ(store->accounts().size(), before + 1);
        return store->accounts().back();
    }

    AppSnapshot onDisk() const { return syncWait(LocalCalendarService(path).load()).snapshot; }
    UUID calendarID(const QString& googleID) const {
        for (const auto& c : store->calendars())
            if (c.googleCalendarID == googleID) return c.id;
        ADD_FAILURE() << "no calendar " << googleID.toStdString();
        return UUID();
    }
    int eventsOn(const std::vector<CalendarEvent>& events, const QString& googleID) const {
        const UUID id = calendarID(googleID);
        return int(std::count_if(events.begin(), events.end(), [&](const CalendarEvent& e) { return e.calendarID == id; }));
    }
    std::vector<CalendarEvent> group(const std::vector<CalendarEvent>& events, const UUID& groupID) const {
        std::vector<CalendarEvent> result;
        std::copy_if(events.begin(), events.end(), std::back_inserter(result),
                     [&](const CalendarEvent& e) { return e.groupID == groupID; });
        return result;
    }

    // Bob's calendar takes busy blocks of the others.
    void letBobReceiveBusyBlocks() {
        AppSnapshot snapshot = syncWait(service->load()).snapshot;
        for (auto& c : snapshot.calendars)
            if (c.googleCalendarID == kBob) c.receivesBusyBlocks = true;
        syncWait(service->save(snapshot));
        ASSERT_TRUE(syncWait(store->syncAllGoogleAccounts()));
    }

    QTemporaryDir dir;
    QString path = dir.filePath("calendar.sqlite");
    GoogleCalendarStandIn aliceGoogle;
    GoogleCalendarStandIn bobGoogle;
    std::deque<GoogleIdentity> identities{{"sub-alice", kAlice, QStringLiteral("Alice")},
                                          {"sub-bob", kBob, QStringLiteral("Bob")}};
    std::shared_ptr<GoogleCalendarService> service;
    std::unique_ptr<AppStore> store;
};

TEST_F(GoogleStoreEndToEndTest, TwoAccountsSyncIntoOneStoreAndAnEditFansOutWithExactRetries) {
    const Account alice = connect();
    const Account bob = connect();
    EXPECT_EQ(eventsOn(store->events(), kAlice), 30);
    EXPECT_EQ(eventsOn(store->events(), kFamily), 5);
    EXPECT_EQ(eventsOn(store->events(), kBob), 12);
    letBobReceiveBusyBlocks();

    // An event on Alice's two calendars, mirrored as a block on Bob's; the
    // second copy is refused.
    aliceGoogle.failNextAt("POST", "family", GoogleCalendarStandIn::googleError(403, "forbiddenForNonOrganizer", "Forbidden"));
    const EventDraft draft{.title = "Planning", .start = on(tokyo(), 12, 10, 10), .end = on(tokyo(), 12, 10, 11),
                           .calendarIDs = {calendarID(kAlice), calendarID(kFamily)}};
    EXPECT_FALSE(syncWait(store->saveEvent(draft, std::nullopt)));
    EXPECT_EQ(store->lastError(), "一部のカレンダーへの変更が未完了です（残り1件、競合0件）。確認後に再試行してください。");
    ASSERT_TRUE(store->retryOperation());
    const auto* pending = store->retryOperation()->as<StoreRetryOperation::GoogleMutation>();
    ASSERT_TRUE(pending);
    const UUID groupID = pending->mutation.groupID;
    const auto shown = group(store->events(), groupID);
    ASSERT_EQ(shown.size(), 3u) << "what reached Google is shown, and the copy still to send";
    const auto familyCopy = std::find_if(shown.begin(), shown.end(), [&](const CalendarEvent& e) { return e.calendarID == calendarID(kFamily); });
    ASSERT_NE(familyCopy, shown.end());
    EXPECT_FALSE(familyCopy->googleEventID);
    const GoogleMutationDestination familyDestination{alice.id, calendarID(kFamily), familyCopy->id};
    EXPECT_EQ(pending->mutation.remainingDestinations, std::vector<GoogleMutationDestination>{familyDestination});
    EXPECT_EQ(bobGoogle.liveEventCount(kBob), 13) << "the busy block arrived";

    // The retry fails once more in the same place and is offered again; the
    // second retry sends exactly the one missing copy.
    aliceGoogle.failNextAt("POST", "family", GoogleCalendarStandIn::googleError(403, "forbiddenForNonOrganizer", "Forbidden"));
    syncWait(store->retryLastOperation());
    ASSERT_TRUE(store->retryOperation());
    EXPECT_EQ(store->retryOperation()->as<StoreRetryOperation::GoogleMutation>()->mutation, pending->mutation);
    const auto aliceBefore = aliceGoogle.server().requests().size();
    const auto bobBefore = bobGoogle.server().requests().size();
    syncWait(store->retryLastOperation());
    EXPECT_FALSE(store->hasLastError());
    EXPECT_FALSE(store->canRetry());
    ASSERT_EQ(aliceGoogle.server().requests().size(), aliceBefore + 1);
    EXPECT_EQ(aliceGoogle.server().requests().back().method, "POST");
    EXPECT_TRUE(aliceGoogle.server().requests().back().path.contains("family"));
    EXPECT_EQ(bobGoogle.server().requests().size(), bobBefore);
    EXPECT_EQ(aliceGoogle.liveEventCount(kFamily), 6);
    EXPECT_EQ(aliceGoogle.liveEventCount(kAlice), 31);
    for (const auto& e : group(store->events(), groupID)) EXPECT_TRUE(e.googleEventID);
    EXPECT_EQ(group(onDisk().events, groupID), group(store->events(), groupID));
}

// An expired token restarts the calendar with a full listing; half of one
// replaces nothing, and the event deleted meanwhile (absent from the full
// listing, with no "cancelled" item) goes once the listing is whole.
TEST_F(GoogleStoreEndToEndTest, ExpiredSyncTokenMidWayKeepsEveryEventUntilTheFullListingIsWhole) {
    const Account alice = connect();
    aliceGoogle.cancelEvent(kAlice, "alice7");
    aliceGoogle.expireSyncTokens();
    for (int i = 0; i < 300; ++i) aliceGoogle.putEvent(kAlice, timed(QStringLiteral("bulk%1").arg(i), "Bulk", 10));
    // The restart breaks on its second page.
    aliceGoogle.failNextAt("GET", "pageToken=", CannedResponse::json(200, R"({"items": [{"id": "bulk1", "summ)"));

    EXPECT_FALSE(syncWait(store->syncGoogleAccount(alice.id)));
    EXPECT_EQ(store->retryOperation(), StoreRetryOperation::syncGoogleAccount(alice.id));
    EXPECT_EQ(eventsOn(store->events(), kAlice), 30);
    EXPECT_EQ(eventsOn(onDisk().events, kAlice), 30);

    syncWait(store->retryLastOperation());
    EXPECT_FALSE(store->hasLastError());
    EXPECT_EQ(eventsOn(store->events(), kAlice), 29 + 300);
    EXPECT_TRUE(std::none_of(store->events().begin(), store->events().end(),
                             [](const CalendarEvent& e) { return e.googleEventID == QStringLiteral("alice7"); }));
    EXPECT_EQ(store->googleSyncStatus(alice.id), GoogleSyncStatus::connected);
}

TEST_F(GoogleStoreEndToEndTest, HostileRepliesEndInTheStoresMessagesWithLocalDataUntouched) {
    const Account alice = connect();
    const Account bob = connect();
    const AppSnapshot before = onDisk();
    // A listing that names the same page again and again.
    const QByteArray endless = R"({"items": [], "nextPageToken": "same"})";
    aliceGoogle.failNextAt("GET", "/calendars/alice%40example.com/events", CannedResponse::json(200, endless));
    aliceGoogle.failNextAt("GET", "pageToken=same", CannedResponse::json(200, endless));
    EXPECT_FALSE(syncWait(store->syncAllGoogleAccounts()));
    EXPECT_EQ(store->retryOperation(), StoreRetryOperation::syncAllGoogleAccounts());
    EXPECT_EQ(eventsOn(onDisk().events, kAlice), 30);
    EXPECT_EQ(eventsOn(store->events(), kAlice), 30);
    EXPECT_EQ(store->googleSyncStatus(bob.id), GoogleSyncStatus::connected);
    // A damaged calendar list ends the account.
    aliceGoogle.failNextAt("GET", "calendarList", CannedResponse::json(200, R"({"items": [{"id": "x", "sel)"));
    EXPECT_FALSE(syncWait(store->syncGoogleAccount(alice.id)));
    EXPECT_TRUE(store->hasLastError());
    EXPECT_EQ(onDisk().events, before.events);

    // A damaged answer to an insert leaves the copy to retry and nothing else.
    aliceGoogle.failNextAt("POST", "alice", CannedResponse::json(200, R"({"id": )"));
    const EventDraft draft{.title = "Lunch", .start = on(tokyo(), 12, 12, 12), .end = on(tokyo(), 12, 12, 13),
                           .calendarIDs = {calendarID(kAlice)}};
    EXPECT_FALSE(syncWait(store->saveEvent(draft, std::nullopt)));
    EXPECT_TRUE(store->canRetry());
    EXPECT_EQ(eventsOn(store->events(), kBob), 12);
    syncWait(store->retryLastOperation());
    EXPECT_FALSE(store->hasLastError());
    EXPECT_EQ(aliceGoogle.liveEventCount(kAlice), 31) << "one event, whether or not the damaged insert had landed";
}

TEST_F(GoogleStoreEndToEndTest, MoveWhoseOldCopyCannotBeDeletedKeepsItUntilTheRetryRemovesIt) {
    const Account alice = connect();
    const Account bob = connect();
    const EventDraft draft{.title = "Review", .start = on(tokyo(), 12, 14, 10), .end = on(tokyo(), 12, 14, 11),
                           .calendarIDs = {calendarID(kAlice)}};
    ASSERT_TRUE(syncWait(store->saveEvent(draft, std::nullopt)));
    const auto review = std::find_if(store->events().begin(), store->events().end(),
                                     [](const CalendarEvent& e) { return e.title == QStringLiteral("Review"); });
    ASSERT_NE(review, store->events().end());
    const CalendarEvent created = *review;
    ASSERT_TRUE(created.googleEventID);

    // The same event moved to Bob's calendar: a delete at Alice's, an insert
    // at Bob's. Alice refuses the delete.
    CalendarEvent moved = created;
    moved.calendarID = calendarID(kBob);
    aliceGoogle.failNextAt("DELETE", "", GoogleCalendarStandIn::googleError(403, "forbidden", "Forbidden"));
    std::vector<CalendarEvent> desired{moved};
    const auto partial =
        tavelo::testing::failureOf<GoogleCalendarServiceError>([&] { syncWait(service->updateEvents(created.groupID, desired)); });
    ASSERT_TRUE(partial);
    const GoogleMutationDestination oldCopy{alice.id, created.calendarID, created.id};
    const GoogleMutationDestination newCopy{bob.id, moved.calendarID, created.id};
    EXPECT_EQ(partial->remainingDestinations(), (std::vector<GoogleMutationDestination>{oldCopy, newCopy}));
    EXPECT_EQ(bobGoogle.countOf("POST"), 0) << "the new copy waits for the old one to go";
    const auto kept = group(onDisk().events, created.groupID);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].googleEventID, created.googleEventID) << "the stored copy still names Alice's event";

    syncWait(service->retryMutation(GoogleMutationOperation::update, created.groupID, desired, partial->remainingDestinations()));
    EXPECT_EQ(aliceGoogle.liveEventCount(kAlice), 30);
    EXPECT_EQ(bobGoogle.liveEventCount(kBob), 13);
    const auto after = group(onDisk().events, created.groupID);
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].calendarID, moved.calendarID);
    EXPECT_TRUE(after[0].googleEventID);
}

// The child half of the kill test: syncs the file at TAVELO_KILL_FILE through
// a store until it is killed.
TEST(GoogleStoreKillTest, DISABLED_ChildSyncsThroughTheStoreUntilKilled) {
    const QString file = qEnvironmentVariable("TAVELO_KILL_FILE");
    ASSERT_FALSE(file.isEmpty());
    const QUrl url(qEnvironmentVariable("TAVELO_KILL_URL"));
    auto service = makeService(file, nullptr, url, url);
    AppStore store(service, service, QString(), tokyo());
    syncWait(store.load());
    ASSERT_FALSE(store.accounts().empty());
    syncWait(store.syncGoogleAccount(store.accounts().front().id));
}

TEST_F(GoogleStoreEndToEndTest, ProcessKilledDuringAFullResyncStartedThroughTheStoreLosesNoEvent) {
    const Account alice = connect();
    store.reset();
    service.reset();
    ASSERT_EQ(int(onDisk().events.size()), 35);

    aliceGoogle.expireSyncTokens();
    for (int i = 0; i < 300; ++i) aliceGoogle.putEvent(kAlice, timed(QStringLiteral("bulk%1").arg(i), "Bulk", 10));
    aliceGoogle.cancelEvent(kAlice, "alice7");
    aliceGoogle.holdAt("GET", "pageToken=");

    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TAVELO_KILL_FILE", path);
    environment.insert("TAVELO_KILL_URL", aliceGoogle.baseURL().toString());
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(),
                {"--gtest_also_run_disabled_tests", "--gtest_filter=GoogleStoreKillTest.DISABLED_ChildSyncsThroughTheStoreUntilKilled"});
    ASSERT_TRUE(child.waitForStarted(10000));
    const bool midway = LocalHttpServer::waitUntil([&] { return aliceGoogle.server().heldCount() > 0; }, 30000);
    child.kill(); // SIGKILL, and nothing once the child has already ended
    child.waitForFinished(10000);
    ASSERT_TRUE(midway) << "the child never reached the second page";
    EXPECT_EQ(child.exitStatus(), QProcess::CrashExit);

    // On restart the store shows every event it had.
    aliceGoogle.clearHolds();
    reopen();
    EXPECT_FALSE(store->hasLastError());
    EXPECT_EQ(eventsOn(store->events(), kAlice), 30);
    EXPECT_EQ(eventsOn(store->events(), kFamily), 5);
}

} // namespace
} // namespace tavelo::test
