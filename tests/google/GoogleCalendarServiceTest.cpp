#include "services/GoogleCalendarService.h"

#include "google/GoogleAccessTokenProvider.h"
#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarStandIn.h"
#include "google/GoogleTestSupport.h"
#include "support/FailureOf.h"
#include "services/LocalCalendarService.h"
#include "support/HTTPTransport.h"

#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <deque>

namespace tavelo::testing {
namespace {

using ServiceKind = GoogleCalendarServiceError::Kind;

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

class GoogleCalendarServiceTest : public ::testing::Test {
protected:
    GoogleCalendarServiceTest() {
        aliceGoogle.acceptToken("alice-token");
        aliceGoogle.addCalendar(kAlice, "Alice", true);
        aliceGoogle.addCalendar(kFamily, "Family", false, "writer", "Europe/Berlin");
        bobGoogle.acceptToken("bob-token");
        bobGoogle.addCalendar(kBob, "Bob", true);
        for (int i = 0; i < 30; ++i) aliceGoogle.putEvent(kAlice, timed(QStringLiteral("alice%1").arg(i), "Alice work", 1 + i % 28));
        for (int i = 0; i < 5; ++i) aliceGoogle.putEvent(kFamily, timed(QStringLiteral("fam%1").arg(i), "Dinner", 1 + i, 19));
        for (int i = 0; i < 12; ++i) bobGoogle.putEvent(kBob, timed(QStringLiteral("bob%1").arg(i), "Bob meeting", 2 + i));
        service = makeService(local);
    }

    std::shared_ptr<GoogleCalendarService> makeService(std::shared_ptr<LocalCalendarService> store) {
        GoogleCalendarService::Functions f;
        f.connectGoogleIdentity = [this](std::stop_token) -> QCoro::Task<GoogleIdentity> {
            GoogleIdentity identity = identities.front();
            identities.pop_front();
            co_return identity;
        };
        f.reconnectGoogleIdentity = [this](QString subject, std::stop_token) -> QCoro::Task<GoogleIdentity> {
            GoogleIdentity identity{subject, subject == "sub-alice" ? kAlice : kBob, std::nullopt};
            co_return identity;
        };
        f.disconnectGoogleIdentity = [this](QString subject) -> QCoro::Task<void> {
            disconnected.push_back(subject);
            co_return;
        };
        f.makeAPIClient = [this](const QString& subject) {
            const bool alice = subject == QLatin1String("sub-alice");
            auto tokens = std::make_shared<FixedTokenProvider>(alice ? "alice-token" : "bob-token");
            return GoogleCalendarAPIClient(
                tokens, transport,
                [this](double, std::stop_token) -> QCoro::Task<void> {
                    if (onWait) onWait();
                    co_return;
                },
                [] { return 0.0; }, alice ? aliceGoogle.baseURL() : bobGoogle.baseURL());
        };
        f.now = [] { return *Date::fromIsoString("2026-11-23T12:00:00Z"); };
        return std::make_shared<GoogleCalendarService>(std::move(store), std::move(f));
    }

    Account connect() { return syncWait(service->connectGoogleAccount({})); }

    // What a fresh store reads from the file.
    AppSnapshot onDisk() { return syncWait(LocalCalendarService(path).load()).snapshot; }

    static int eventsOn(const AppSnapshot& snapshot, const QString& googleCalendarID) {
        std::optional<UUID> id;
        for (const auto& c : snapshot.calendars)
            if (c.googleCalendarID == googleCalendarID) id = c.id;
        if (!id) return -1;
        return int(std::count_if(snapshot.events.begin(), snapshot.events.end(),
                                 [&](const CalendarEvent& e) { return e.calendarID == *id; }));
    }
    static const CalendarEvent* eventByGoogleID(const AppSnapshot& snapshot, const QString& googleID) {
        for (const auto& e : snapshot.events)
            if (e.googleEventID == googleID) return &e;
        return nullptr;
    }
    static UUID calendarID(const AppSnapshot& snapshot, const QString& googleCalendarID) {
        for (const auto& c : snapshot.calendars)
            if (c.googleCalendarID == googleCalendarID) return c.id;
        ADD_FAILURE() << "no calendar " << googleCalendarID.toStdString();
        return UUID();
    }

    static const CalendarEvent* storedEventByID(const AppSnapshot& snapshot, const UUID& id) {
        for (const auto& e : snapshot.events)
            if (e.id == id) return &e;
        return nullptr;
    }

    // A group of one event on three calendars of two accounts, the last copy a
    // busy block of the first.
    static std::vector<CalendarEvent> groupOnThree(const AppSnapshot& snapshot, const UUID& groupID) {
        const Date start = *Date::fromIsoString("2026-12-10T01:00:00Z");
        std::vector<CalendarEvent> events;
        for (const QString& googleID : {kAlice, kFamily, kBob}) {
            CalendarEvent e;
            e.id = UUID::random();
            e.groupID = groupID;
            e.title = QStringLiteral("Planning");
            e.start = start;
            e.end = start.addingSeconds(3600);
            e.calendarID = calendarID(snapshot, googleID);
            events.push_back(e);
        }
        events[2].isGeneratedBusyBlock = true;
        events[2].sourceEventID = events[0].id;
        events[2].title = QStringLiteral("Busy");
        return events;
    }

    template <class Body>
    std::optional<GoogleCalendarServiceError> failureOf(Body body) {
        return tavelo::testing::failureOf<GoogleCalendarServiceError>(body);
    }

    QTemporaryDir dir;
    QString path = dir.filePath("calendar.sqlite");
    std::shared_ptr<LocalCalendarService> local = std::make_shared<LocalCalendarService>(path);
    GoogleCalendarStandIn aliceGoogle;
    GoogleCalendarStandIn bobGoogle;
    std::shared_ptr<NetworkHTTPTransport> transport = std::make_shared<NetworkHTTPTransport>();
    std::deque<GoogleIdentity> identities{{"sub-alice", kAlice, QStringLiteral("Alice")},
                                          {"sub-bob", kBob, QStringLiteral("Bob")}};
    std::vector<QString> disconnected;
    std::function<void()> onWait;
    std::shared_ptr<GoogleCalendarService> service;
};

TEST_F(GoogleCalendarServiceTest, TwoAccountsSyncOneAtATimeThenOnlyChangesTravel) {
    const Account alice = connect();
    const Account bob = connect();
    // Both syncs start at once; the second waits at the gate until the first has saved.
    auto first = service->syncGoogleAccount(alice.id, {});
    auto second = service->syncGoogleAccount(bob.id, {});
    EXPECT_EQ(service->transactionGate().waiterCount(), 1u);
    syncWait(first);
    syncWait(second);
    AppSnapshot stored = onDisk();
    EXPECT_EQ(service->calendarTimeZones().at(calendarID(stored, kFamily)), "Europe/Berlin");

    // Changes at Google: only they are listed, by sync token.
    aliceGoogle.putEvent(kAlice, timed("alice3", "Moved review", 20, 15));
    aliceGoogle.cancelEvent(kAlice, "alice4");
    syncWait(service->syncGoogleAccount(alice.id, {}));
    EXPECT_TRUE(aliceGoogle.server().requests().back().query.contains("syncToken="));
    stored = onDisk();
    EXPECT_EQ(eventsOn(stored, kAlice), 29);
    EXPECT_EQ(eventByGoogleID(stored, "alice3")->title, "Moved review");
}

TEST_F(GoogleCalendarServiceTest, RejectedCredentialsStopOneAccountAndTheOtherStillSyncs) {
    const Account alice = connect();
    const Account bob = connect();
    aliceGoogle.revokeToken("alice-token");
    auto partial = failureOf([&] { syncWait(service->syncAllGoogleAccounts({})); });
    ASSERT_TRUE(partial);
    EXPECT_EQ(partial->kind(), ServiceKind::partialSync);
    EXPECT_EQ(partial->failedAccountIDs(), std::vector<UUID>{alice.id});

    EXPECT_EQ(syncWait(service->googleSyncStatus(alice.id)), GoogleSyncStatus::reconnectRequired);
    EXPECT_EQ(syncWait(service->googleSyncStatus(bob.id)), GoogleSyncStatus::connected);
    AppSnapshot stored = onDisk();
    for (const auto& account : stored.accounts) EXPECT_EQ(account.isConnected, account.id == bob.id);
    EXPECT_EQ(eventsOn(stored, kBob), 12);

    // Reconnecting brings the account back.
    aliceGoogle.acceptToken("alice-token");
    syncWait(service->reconnectGoogleAccount(alice.id, {}));
    syncWait(service->syncGoogleAccount(alice.id, {}));
    EXPECT_EQ(eventsOn(onDisk(), kAlice), 30);
}

TEST_F(GoogleCalendarServiceTest, CancelledSyncWritesNothing) {
    const Account alice = connect();
    syncWait(service->syncGoogleAccount(alice.id, {}));
    aliceGoogle.putEvent(kAlice, timed("alice2", "Renamed", 3));
    aliceGoogle.failNextAt("GET", "family", CannedResponse{429, {}, {}});
    std::stop_source stop;
    onWait = [&] { stop.request_stop(); };
    EXPECT_THROW(syncWait(service->syncGoogleAccount(alice.id, stop.get_token())), CancellationError);
    EXPECT_EQ(eventByGoogleID(onDisk(), "alice2")->title, "Alice work");
    EXPECT_EQ(syncWait(service->googleSyncStatus(alice.id)), GoogleSyncStatus::connected);
    EXPECT_FALSE(service->transactionGate().isLocked());
}

TEST_F(GoogleCalendarServiceTest, StaleSaveFromTheApplicationKeepsGooglesState) {
    const Account alice = connect();
    syncWait(service->syncGoogleAccount(alice.id, {}));
    AppSnapshot appCopy = syncWait(service->load()).snapshot;

    aliceGoogle.putEvent(kAlice, timed("alice5", "Changed at Google", 6));
    syncWait(service->syncGoogleAccount(alice.id, {}));
    const QString newETag = aliceGoogle.event(kAlice, "alice5")->value("etag").toString();

    // The application saves its older copy with a choice of its own.
    for (auto& calendar : appCopy.calendars)
        if (calendar.googleCalendarID == kFamily) calendar.isVisible = false;
    for (auto& event : appCopy.events)
        if (event.googleEventID == "alice5") event.isCompleted = true;
    appCopy.googleSyncStates.clear();
    syncWait(service->save(appCopy));

    AppSnapshot stored = onDisk();
    const CalendarEvent* event = eventByGoogleID(stored, "alice5");
    ASSERT_TRUE(event);
    EXPECT_EQ(event->googleETag, newETag);
    EXPECT_EQ(event->title, "Changed at Google");
    EXPECT_TRUE(event->isCompleted);
    for (const auto& calendar : stored.calendars)
        EXPECT_FALSE(calendar.googleCalendarID == kFamily && calendar.isVisible) << "the family calendar stays hidden";
    EXPECT_FALSE(stored.googleSyncStates.empty());
}

TEST_F(GoogleCalendarServiceTest, DisconnectErasesTheLocalCopyAndReconnectingGivesTheSameIDs) {
    const Account alice = connect();
    const Account bob = connect();
    syncWait(service->syncAllGoogleAccounts({}));
    const AppSnapshot before = onDisk();

    syncWait(service->disconnectGoogleAccount(alice.id, {}));
    EXPECT_EQ(disconnected, std::vector<QString>{"sub-alice"});
    AppSnapshot stored = onDisk();
    EXPECT_EQ(eventsOn(stored, kAlice), -1);
    EXPECT_EQ(eventsOn(stored, kFamily), -1);
    EXPECT_EQ(eventsOn(stored, kBob), 12);
    // Nothing changed at Google.
    EXPECT_EQ(aliceGoogle.liveEventCount(kAlice), 30);

    identities.push_back({"sub-alice", kAlice, QStringLiteral("Alice")});
    EXPECT_EQ(connect().id, alice.id);
    syncWait(service->syncGoogleAccount(alice.id, {}));
    AppSnapshot again = onDisk();
    EXPECT_EQ(calendarID(again, kAlice), calendarID(before, kAlice));
    EXPECT_EQ(eventByGoogleID(again, "alice9")->id, eventByGoogleID(before, "alice9")->id);
}

TEST_F(GoogleCalendarServiceTest, EditsRemoteChangesAndDeletesFollowTheGroup) {
    const Account alice = connect();
    connect();
    syncWait(service->syncAllGoogleAccounts({}));
    const UUID groupID = UUID::random();
    const auto made = groupOnThree(onDisk(), groupID);
    auto desired = syncWait(service->createEvents(made));
    std::vector<CalendarEvent> group;
    for (const auto& e : desired)
        if (e.groupID == groupID) group.push_back(e);
    ASSERT_EQ(group.size(), 3u);
    // A sync afterwards finds the copies by their Google ids and keeps the links.
    syncWait(service->syncAllGoogleAccounts({}));
    EXPECT_EQ(storedEventByID(onDisk(), made[2].id)->sourceEventID, made[0].id);
    EXPECT_EQ(aliceGoogle.liveEventCount(kFamily), 6);

    // Only the tag changes: a patch of extended properties that mails nobody.
    const int patchesBefore = aliceGoogle.countOf("PATCH") + bobGoogle.countOf("PATCH");
    auto retagged = group;
    for (auto& e : retagged) e.tagID = UUID::random();
    syncWait(service->updateEvents(groupID, retagged));
    EXPECT_EQ(aliceGoogle.countOf("PATCH") + bobGoogle.countOf("PATCH"), patchesBefore + 3);
    EXPECT_FALSE(aliceGoogle.server().requests().back().query.contains("sendUpdates"));
    // An update with nothing changed sends nothing (no guest is mailed for it).
    const auto sent = aliceGoogle.server().requests().size() + bobGoogle.server().requests().size();
    auto current = onDisk();
    std::vector<CalendarEvent> same;
    for (const auto& e : current.events)
        if (e.groupID == groupID) same.push_back(e);
    syncWait(service->updateEvents(groupID, same));
    EXPECT_EQ(aliceGoogle.server().requests().size() + bobGoogle.server().requests().size(), sent);

    // Someone renames the family copy at Google meanwhile: Google wins there.
    const CalendarEvent family = *storedEventByID(current, group[1].id);
    QJsonObject remote = *aliceGoogle.event(kFamily, *family.googleEventID);
    remote.insert("summary", "Renamed at Google");
    aliceGoogle.putEvent(kFamily, remote);
    auto renamed = same;
    for (auto& e : renamed) e.title = QStringLiteral("Planning v2");
    auto conflict = failureOf([&] { syncWait(service->updateEvents(groupID, renamed)); });
    ASSERT_TRUE(conflict);
    const GoogleMutationDestination familyDestination{alice.id, family.calendarID, family.id};
    EXPECT_EQ(conflict->conflictingDestinations(), std::vector<GoogleMutationDestination>{familyDestination});
    EXPECT_EQ(conflict->remainingDestinations(), std::vector<GoogleMutationDestination>{familyDestination});
    current = onDisk();
    EXPECT_EQ(storedEventByID(current, family.id)->title, "Renamed at Google");
    EXPECT_EQ(storedEventByID(current, group[0].id)->title, "Planning v2");
    EXPECT_EQ(aliceGoogle.event(kAlice, *storedEventByID(current, group[0].id)->googleEventID)->value("summary").toString(),
              "Planning v2");

    // Deleting the group deletes every copy at Google.
    syncWait(service->deleteEvents(groupID));
    EXPECT_EQ(aliceGoogle.liveEventCount(kAlice), 30);
    EXPECT_EQ(aliceGoogle.liveEventCount(kFamily), 5);
    EXPECT_EQ(bobGoogle.liveEventCount(kBob), 12);
    current = onDisk();
    EXPECT_EQ(std::count_if(current.events.begin(), current.events.end(), [&](const CalendarEvent& e) { return e.groupID == groupID; }), 0);
}

TEST_F(GoogleCalendarServiceTest, MeetLinkAskedOnCreateArrivesWithALaterSync) {
    const Account alice = connect();
    connect();
    syncWait(service->syncAllGoogleAccounts({}));
    auto event = groupOnThree(onDisk(), UUID::random()).front();
    event.meetURL = CalendarEvent::pendingMeetURL();
    syncWait(service->createEvents({event}));
    // Google has not made the conference yet: the placeholder stays.
    EXPECT_EQ(storedEventByID(onDisk(), event.id)->meetURL, CalendarEvent::pendingMeetURL());

    syncWait(service->syncGoogleAccount(alice.id, {}));
    const auto linked = storedEventByID(onDisk(), event.id)->meetURL;
    ASSERT_TRUE(linked);
    EXPECT_TRUE(linked->toString().startsWith("https://meet.google.com/")) << linked->toString().toStdString();
}

TEST_F(GoogleCalendarServiceTest, FreeBusyAsksEachAccountOnceAndTheEditedGroupDoesNotBlockItself) {
    connect();
    connect();
    syncWait(service->syncAllGoogleAccounts({}));
    const UUID groupID = UUID::random();
    syncWait(service->createEvents(groupOnThree(onDisk(), groupID)));
    const AppSnapshot stored = onDisk();
    std::set<UUID> calendars;
    for (const auto& c : stored.calendars) calendars.insert(c.id);
    const DateInterval window{*Date::fromIsoString("2026-12-10T00:00:00Z"), *Date::fromIsoString("2026-12-11T00:00:00Z")};

    const int alicePosts = aliceGoogle.countOf("POST");
    const auto all = syncWait(service->freeBusy(calendars, window, std::nullopt));
    EXPECT_EQ(aliceGoogle.countOf("POST"), alicePosts + 1) << "one request for both of Alice's calendars";
    std::set<UUID> busyCalendars;
    for (const auto& b : all) busyCalendars.insert(b.calendarID);
    EXPECT_EQ(busyCalendars, (std::set<UUID>{calendarID(stored, kAlice), calendarID(stored, kFamily), calendarID(stored, kBob)}));

    // Editing the group: its own hour blocks nothing, other events still do.
    aliceGoogle.putEvent(kFamily, timed("other1", "Other", 10, 20));
    const auto editing = syncWait(service->freeBusy(calendars, window, groupID));
    ASSERT_EQ(editing.size(), 1u);
    EXPECT_EQ(editing[0].calendarID, calendarID(stored, kFamily));
}

} // namespace
} // namespace tavelo::testing
