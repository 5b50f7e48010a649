#include "stores/AppStore.h"

#include "services/LocalCalendarService.h"
#include "support/SqliteFile.h"
#include "support/TestWait.h"
#include "stores/EventAccessPolicy.h"
#include "stores/EventMutationEngine.h"

#include "ScriptedGoogle.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <tuple>

using namespace tavelo;
using namespace tavelo::test;
using Events = std::vector<CalendarEvent>;

namespace {

Date at(int hour, int minute = 0) { return on(tokyo(), 1, 5, hour, minute); }
QCoro::Task<bool> toBool(QCoro::Task<std::optional<CalendarEvent>> task) { co_return (co_await std::move(task)).has_value(); }
QString lockedSaveMessage() { return localizedDescription(SQLitePersistenceError(SQLitePersistenceError::Kind::operation)); }

// Holds the state file's lock, so that every save fails with SQLITE_BUSY
// until `release`.
using ExclusiveDatabaseLock = tavelo::testing::ExclusiveLock;

// Two Google accounts with a calendar each, a calendar without an account
// (all three receive busy blocks) and an account without calendars. A
// "Standup" on both Google calendars mirrors a block onto the third; a "Gym"
// stands between its copies, as synced events may; a "Report" task sits on
// work and family with a block on personal. Four tags, the first carried by
// the standup. The preferences and a sync state differ from the defaults.
class AppStoreTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    const UUID workAccount = UUID::random(), homeAccount = UUID::random(), plainAccount = UUID::random();
    const UUID work = UUID::random(), personal = UUID::random(), family = UUID::random();
    const UUID local = CalendarSource::tavelo().id;
    AppSnapshot initial;
    Events standup, report; // copies first, then the block
    std::unique_ptr<AppStore> store;

    void SetUp() override {
        initial.accounts = {Account{.id = workAccount, .isConnected = true, .googleSubject = "w"},
                            Account{.id = homeAccount, .isConnected = true, .googleSubject = "h"},
                            Account{.id = plainAccount, .name = "Local"}};
        initial.calendars = {
            CalendarSource{.id = work, .accountID = workAccount, .receivesBusyBlocks = true, .googleCalendarID = "w@x.com"},
            CalendarSource{.id = personal, .accountID = homeAccount, .receivesBusyBlocks = true, .googleCalendarID = "h@x.com"},
            CalendarSource{.id = family, .receivesBusyBlocks = true}};
        for (const char* name : {"Café", "Deep work", "Health", "Admin"})
            initial.tags.push_back(Tag{.id = UUID::random(), .name = name, .sortOrder = int(initial.tags.size())});
        initial.preferences.mergeDuplicates = false;
        initial.googleSyncStates = {GoogleCalendarSyncState{.calendarID = work, .syncToken = "token"}};
        auto seed = draft("Standup", {work, personal});
        seed.tagID = initial.tags[0].id;
        standup = EventMutationEngine::create(seed, seed.calendarIDs, initial, tokyo());
        const auto gym = EventMutationEngine::create(draft("Gym", {family}, at(18), at(19)), {family}, initial, tokyo());
        auto task = draft("Report", {work, family}, at(14), at(15));
        task.kind = EventKind::task;
        report = EventMutationEngine::create(task, task.calendarIDs, initial, tokyo());
        initial.events = {standup[0], gym[0], standup[1], standup[2], report[0], report[1], report[2]};
        syncWait(LocalCalendarService(path()).save(initial));
    }

    QString path() const { return dir.filePath("state.json"); }
    AppSnapshot stored() const { return syncWait(LocalCalendarService(path()).load()).snapshot; }
    AppStore& open(std::shared_ptr<CalendarService> service = nullptr, std::shared_ptr<GoogleAccountService> google = nullptr) {
        if (!service) service = std::make_shared<LocalCalendarService>(path(), [this] { return initial; });
        store = std::make_unique<AppStore>(service, std::move(google), "", tokyo());
        return *store;
    }
    AppStore& loaded(std::shared_ptr<CalendarService> service = nullptr, std::shared_ptr<GoogleAccountService> google = nullptr) {
        syncWait(open(std::move(service), std::move(google)).load());
        EXPECT_EQ(store->snapshot(), initial);
        EXPECT_FALSE(store->hasLastError() || store->canRetry());
        return *store;
    }
    static EventDraft draft(QString title, std::vector<UUID> calendars, Date start = at(9), Date end = at(10)) {
        return EventDraft{.title = std::move(title), .start = start, .end = end, .calendarIDs = std::move(calendars)};
    }
    Events group(UUID groupID) const {
        Events result;
        std::copy_if(store->events().begin(), store->events().end(), std::back_inserter(result),
                     [&](const CalendarEvent& e) { return e.groupID == groupID; });
        return result;
    }
};

// --- Loading -----------------------------------------------------------------------

TEST_F(AppStoreTest, FailedFirstLoadOffersLoadAgainAndOnlyTheFirstSuccessReads) {
    ASSERT_TRUE(QFile::remove(path()) && QDir(dir.path()).mkdir("state.json")); // unreadable as a file
    auto& store = open();
    syncWait(store.load());
    EXPECT_EQ(store.retryOperation(), StoreRetryOperation::load());
    EXPECT_FALSE(store.didLoad() || store.isPersistenceTransactionActive());

    // Now damaged: the retry shows the seed with the warning in place of the error.
    ASSERT_TRUE(QDir(dir.path()).rmdir("state.json"));
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("not a calendar") > 0);
    file.close();
    syncWait(store.retryLastOperation());
    const auto backups = QDir(dir.path()).entryList({"state.*.corrupt.json"});
    ASSERT_EQ(backups.size(), 1);
    EXPECT_EQ(store.snapshot(), initial);
    EXPECT_EQ(store.lastError(), CalendarServiceWarning::corruptData(dir.filePath(backups[0])).errorDescription());
    EXPECT_TRUE(store.didLoad() && !store.canRetry());

    auto changed = initial;
    changed.accounts.pop_back(); // not saved: only a second read would bring it back
    store.apply(changed);
    syncWait(store.load());
    EXPECT_EQ(store.accounts(), changed.accounts);
    EXPECT_TRUE(store.hasLastError());
}

// --- The persistence transaction -----------------------------------------------------

TEST_F(AppStoreTest, WritersTakeTurnsInCallOrderAndLogoutWaitsForThem) {
    auto& store = loaded();
    ASSERT_TRUE(syncWait(store.acquirePersistenceTransaction(false)));
    std::vector<QCoro::Task<bool>> writers;
    writers.push_back(store.setCalendarVisibility(work, false));
    writers.push_back(store.saveEvent(draft("Lunch", {family}, at(12), at(13)), std::nullopt)); // a copy and two blocks
    writers.push_back(store.setPastSearchResultsIncluded(true));
    writers.push_back(store.deleteEvent(standup[1].id));
    writers.push_back(store.addTag(Tag{.id = UUID::random(), .name = "Travel"}));
    auto logout = store.prepareForLogout();
    EXPECT_EQ(store.persistenceTransactionWaiterCount(), 6u);
    EXPECT_EQ(store.snapshot(), initial);

    store.releasePersistenceTransaction();
    // Handed straight to the first waiter: a caller arriving now queues last.
    EXPECT_TRUE(store.isPersistenceTransactionActive());
    auto late = store.setCalendarVisibility(work, true);
    syncWait(logout);
    for (auto& writer : writers) EXPECT_TRUE(writer.isReady() && syncWait(writer));
    EXPECT_TRUE(syncWait(late));
    // The late change came last; the new event brought two blocks, the deleted one took its group.
    EXPECT_EQ(std::tuple(store.calendars()[0].isVisible, store.preferences().includePastSearchResults, store.events().size(),
                         store.tags().size()), std::tuple(true, true, 7u, 5u));
    EXPECT_FALSE(store.isPersistenceTransactionActive());
    EXPECT_EQ(store.persistenceTransactionWaiterCount(), 0u);
    EXPECT_EQ(stored(), store.snapshot());
}

// --- Saving, rollback and retry ------------------------------------------------------

TEST_F(AppStoreTest, FailedSaveRollsBackAndTheRetryRedoesIt) {
    auto& store = loaded();
    {
        ExclusiveDatabaseLock lock(path()); // unchanged values need no save, so they pass
        EXPECT_TRUE(syncWait(store.setCalendarVisibility(work, true)) && syncWait(store.setPastSearchResultsIncluded(false)) &&
                    syncWait(store.updatePreferencesNow(initial.preferences)));
        EXPECT_FALSE(store.hasLastError());
    }
    int announced = 0; // a rollback applies every list: only real changes may be announced
    for (auto signal : {&AppStore::accountsChanged, &AppStore::calendarsChanged, &AppStore::eventsChanged,
                        &AppStore::tagsChanged, &AppStore::preferencesChanged})
        QObject::connect(&store, signal, [&] { ++announced; });
    QSignalSpy canRetryChanged(&store, &AppStore::canRetryChanged);
    auto preferences = initial.preferences;
    preferences.busyBlockScope = BusyBlockScope::workOnly;
    struct Case {
        const char* name;
        std::function<QCoro::Task<bool>()> run;
        std::optional<StoreRetryOperation> retry; // and what the retry changes
        std::function<void(AppSnapshot&)> change = {};
        int announcements = 2; // each changed list shown at once, then taken back
    };
    const std::vector<Case> cases = {
        {"create", [&] { return store.saveEvent(draft("Lunch", {work}), std::nullopt); }, std::nullopt},
        {"move", [&] { return store.moveEvent(standup[0].id, DateInterval{at(17), at(18)}); }, std::nullopt},
        {"delete", [&] { return store.deleteEvent(standup[0].id); }, std::nullopt},
        {"visibility", [&] { return store.toggleCalendarVisibility(work); }, StoreRetryOperation::setCalendarVisibility(work, false),
         [](AppSnapshot& s) { s.calendars[0].isVisible = false; }},
        {"preferences", [&] { return store.updatePreferencesNow(preferences); },
         StoreRetryOperation::updatePreferences(preferences), [&](AppSnapshot& s) { s.preferences = preferences; }},
        // Every task copy of the group, never its busy block.
        {"task", [&] { return store.toggleTaskCompletion(report[1].id); },
         StoreRetryOperation::setTaskCompletion(report[1].id, true), [](AppSnapshot& s) {
             s.events[4].isCompleted = s.events[5].isCompleted = true;
         }},
        // Tags and the events that wore the deleted one.
        {"delete tag", [&] { return store.deleteTag(initial.tags[0].id); }, std::nullopt, {}, 4},
        {"add tag", [&] { return store.addTag(Tag{.id = UUID::random(), .name = "Travel"}); }, std::nullopt},
        // The local calendar and the meeting on it.
        {"meeting", [&] { return toBool(store.createStandaloneMeeting("Retro", at(16), at(17))); }, std::nullopt, {}, 4},
    };
    auto expected = initial;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        announced = 0;
        canRetryChanged.clear();
        ExclusiveDatabaseLock lock(path());
        EXPECT_FALSE(syncWait(c.run()));
        EXPECT_EQ(announced, c.announcements);
        EXPECT_EQ(store.snapshot(), expected);
        EXPECT_EQ(store.lastError(), lockedSaveMessage());
        EXPECT_EQ(store.retryOperation(), c.retry);
        EXPECT_FALSE(store.isPersistenceTransactionActive());
        lock.release();
        EXPECT_EQ(stored(), expected);
        if (!c.retry) continue;

        syncWait(store.retryLastOperation());
        c.change(expected);
        EXPECT_EQ(store.snapshot(), expected);
        EXPECT_EQ(stored(), expected);
        EXPECT_FALSE(store.hasLastError() || store.canRetry());
        EXPECT_EQ(canRetryChanged.count(), 2);
    }
}

TEST_F(AppStoreTest, FailedPersistKeepsTheStateAndTheRetryWritesIt) {
    auto& store = loaded();
    auto changed = initial;
    changed.tags[0].name = "Coffee";
    store.apply(changed);
    ExclusiveDatabaseLock lock(path());
    EXPECT_THROW(syncWait(store.persist()), SQLitePersistenceError);
    EXPECT_EQ(store.snapshot(), changed);
    EXPECT_EQ(store.lastError(), lockedSaveMessage());
    EXPECT_EQ(store.retryOperation(), StoreRetryOperation::persist());
    EXPECT_FALSE(store.isPersistenceTransactionActive());

    lock.release();
    syncWait(store.retryLastOperation());
    EXPECT_EQ(stored(), changed);
    EXPECT_FALSE(store.hasLastError());
}

// --- With Google configured: one remote service for both contracts ------------------------------------------------------------

TEST_F(AppStoreTest, WithGoogleStatusIsReadPerAccountAndStaleAnswersAreDropped) {
    auto remote = std::make_shared<ScriptedGoogle>(std::make_shared<LocalCalendarService>(path()));
    auto& store = loaded(remote, remote);
    EXPECT_EQ(store.googleSyncStatuses(), (std::map<UUID, GoogleSyncStatus>{{workAccount, GoogleSyncStatus::connected},
                                                                           {homeAccount, GoogleSyncStatus::connected}}));

    const auto overlapping = draft("New", {work}, at(9, 30), at(10, 30));
    // Asked again before the first answer came: the first is void.
    auto stale = store.eventAvailability(overlapping, tokyo());
    auto fresh = store.eventAvailability(EventDraft::fromEvent(standup[0], {work}, tokyo()), tokyo());
    ASSERT_EQ(remote->freeBusyAnswers.size(), 2u);
    for (auto& answer : remote->freeBusyAnswers) answer.resume(true);
    EXPECT_TRUE(syncWait(stale).isLoading());
    EXPECT_EQ(syncWait(fresh).text(), "2つのアカウントすべてで空き時間です"); // its own group is not busy

    auto again = store.eventAvailability(overlapping, tokyo());
    remote->freeBusyAnswers.back().resume(true);
    EXPECT_EQ(syncWait(again).text(), "0 / 2つのアカウントで空き時間です");
}

// --- Events ----------------------------------------------------------------------------

TEST_F(AppStoreTest, GroupsKeepTheirIdsThroughUpdatesAndMoveOrGoAsAWhole) {
    auto& store = loaded();
    ASSERT_TRUE(syncWait(store.saveEvent(draft("Review", {work, personal}, at(13), at(14)), std::nullopt)));
    const auto created = group(store.events().back().groupID);
    ASSERT_EQ(created.size(), 3u);
    EXPECT_TRUE(created[2].isGeneratedBusyBlock && created[2].calendarID == family);
    EXPECT_EQ(stored().events, store.events());

    // Saved from another copy of the group: the same group, updated in place.
    auto edit = EventDraft::fromEvent(created[0], {work, personal}, tokyo());
    edit.title = "Design review";
    ASSERT_TRUE(syncWait(store.saveEvent(edit, created[1].id)));
    const auto updated = group(created[0].groupID);
    ASSERT_EQ(updated.size(), 3u);
    EXPECT_EQ(std::tuple(updated[0].id, updated[0].title), std::tuple(created[0].id, QString("Design review")));

    // Dragging a copy moves the whole group on its calendars, ids and tag kept.
    ASSERT_TRUE(syncWait(store.moveEvent(standup[1].id, DateInterval{at(11), at(12, 30)})));
    const auto moved = group(standup[0].groupID);
    ASSERT_EQ(moved.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(std::tuple(moved[i].id, moved[i].start, moved[i].end), std::tuple(standup[i].id, at(11), at(12, 30)));
    EXPECT_EQ(moved[0].tagID, initial.tags[0].id);
    ASSERT_TRUE(syncWait(store.deleteEvent(standup[1].id)));
    EXPECT_TRUE(group(standup[0].groupID).empty());
    EXPECT_EQ(stored().events, store.events());
    EXPECT_FALSE(store.hasLastError());
}

TEST_F(AppStoreTest, RefusalsShowTheirMessageWithoutRetryAndChangeNothing) {
    auto& store = loaded();
    EXPECT_FALSE(syncWait(store.moveEvent(standup[2].id, DateInterval{at(11), at(12)}))); // a block: not even a message
    EXPECT_FALSE(store.hasLastError());
    {
        ExclusiveDatabaseLock lock(path()); // leaves a retry offer that a refusal must replace
        EXPECT_FALSE(syncWait(store.toggleCalendarVisibility(family)));
    }
    auto badGuest = draft("Interview", {family, work}); // Google takes real addresses only
    badGuest.guests = {Guest{.id = UUID::random(), .email = "someone@example..com"}};
    auto otherGroup = EventDraft::fromEvent(standup[0], {work}, tokyo());
    otherGroup.groupID = UUID::random();
    auto admin = initial.tags[3];
    admin.name = " deep WORK";
    const auto save = [&](EventDraft d, std::optional<UUID> editing = std::nullopt) {
        return [&store, d, editing] { return store.saveEvent(d, editing); };
    };
    const QString invalidEdit = StoreOperationError::invalidEdit().message();
    const QString managedBlock = StoreOperationError::managedBusyBlock().message();
    const std::vector<std::pair<std::function<QCoro::Task<bool>()>, QString>> refusals = {
        {save(badGuest), "Googleカレンダーの参加者には有効なメールアドレスを入力してください"},
        {save(draft("Notes", {})), "作成先カレンダーを選択してください"},
        {save(EventDraft::fromEvent(standup[0], {work}, tokyo())), invalidEdit}, // an update names no event
        {save(otherGroup, standup[0].id), invalidEdit},
        {save(EventDraft::fromEvent(standup[2], {family}, tokyo()), standup[2].id), managedBlock},
        {[&] { return store.deleteEvent(standup[2].id); }, managedBlock},
        {[&] { return store.addTag(Tag{.id = UUID::random(), .name = " cafe "}); }, "同じ名前のタグがあります"},
        {[&] { return store.addTag(Tag{.id = UUID::random(), .name = " \n\t"}); }, "タグ名を入力してください"},
        {[&] { return store.updateTag(admin); }, "同じ名前のタグがあります"},
    };
    for (std::size_t i = 0; i < refusals.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_FALSE(syncWait(refusals[i].first()));
        EXPECT_EQ(store.lastError(), refusals[i].second);
        EXPECT_FALSE(store.canRetry());
    }
    EXPECT_EQ(store.snapshot(), initial);
    EXPECT_EQ(stored(), initial);
    badGuest.calendarIDs = {family}; // no Google calendar: any address goes
    EXPECT_TRUE(syncWait(store.saveEvent(badGuest, std::nullopt)));
}

TEST(EventAccessPolicyTest, BusyBlocksLeadToTheEventTheyMirror) {
    const auto make = [](UUID group, bool generated, std::optional<UUID> source = std::nullopt) {
        return CalendarEvent{.id = UUID::random(), .groupID = group, .sourceEventID = source, .isGeneratedBusyBlock = generated};
    };
    const UUID g = UUID::random();
    const auto first = make(g, false), second = make(g, false), elsewhere = make(UUID::random(), false);
    const auto toSecond = make(g, true, second.id), toElsewhere = make(g, true, elsewhere.id), toBlock = make(g, true, toSecond.id);
    const Events events{toSecond, first, second, elsewhere, toElsewhere, toBlock};
    EXPECT_EQ(EventAccessPolicy::detailEvent(toSecond.id, events), second);
    EXPECT_EQ(EventAccessPolicy::detailEvent(toElsewhere.id, events), elsewhere); // the source wins over the group
    EXPECT_EQ(EventAccessPolicy::detailEvent(toBlock.id, events), first);         // else the group's first real event
}

// --- Tags ------------------------------------------------------------------------

TEST_F(AppStoreTest, DeletingATagClearsItFromItsEvents) {
    auto& store = loaded();
    ASSERT_TRUE(syncWait(store.deleteTag(initial.tags[0].id)));
    EXPECT_TRUE(std::none_of(store.events().begin(), store.events().end(), [](const auto& e) { return e.tagID; }));
    EXPECT_EQ(stored(), store.snapshot());
}

// Unlike visibility and preferences, a tag operation saves even when it
// changes nothing, and its success clears an older message and retry.
TEST_F(AppStoreTest, ATagOperationThatChangesNothingStillSavesAndClearsTheMessage) {
    auto& store = loaded();
    {
        ExclusiveDatabaseLock lock(path());
        EXPECT_FALSE(syncWait(store.moveTags({1}, 1))) << "onto its own place, and still a save that fails";
        EXPECT_FALSE(syncWait(store.toggleCalendarVisibility(work)));
        EXPECT_TRUE(store.canRetry());
    }
    EXPECT_TRUE(syncWait(store.setTagOrder({})));
    EXPECT_FALSE(store.hasLastError());
    EXPECT_FALSE(store.canRetry());
    EXPECT_EQ(stored(), initial);
}

// --- The local calendar -------------------------------------------------------

// The first event saved onto the local calendar brings it into the list, once.
TEST_F(AppStoreTest, TheLocalCalendarJoinsTheListOnce) {
    auto& store = loaded();
    ASSERT_TRUE(syncWait(store.saveEvent(draft("Focus", {local}, at(13), at(14)), std::nullopt)));
    ASSERT_TRUE(syncWait(store.createStandaloneMeeting("Retro", at(16), at(17))));
    EXPECT_EQ(std::count_if(store.calendars().begin(), store.calendars().end(),
                            [&](const CalendarSource& c) { return c.id == local; }), 1);
    EXPECT_EQ(stored(), store.snapshot());
}

} // namespace
