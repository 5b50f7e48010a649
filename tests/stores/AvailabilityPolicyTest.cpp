#include "stores/AvailabilityPolicy.h"

#include "services/LocalCalendarService.h"
#include "support/Async.h"

#include "StoreTestSupport.h"

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <utility>

using namespace tavelo;
using namespace tavelo::test;

namespace {

// Accounts in snapshot order: home, work, then a disconnected one; a hidden
// and a shown work calendar, and a calendar without an account.
class AvailabilityPolicyTest : public ::testing::Test {
protected:
    const UUID home = UUID::random(), work = UUID::random(), lapsed = UUID::random();
    const UUID workHidden = UUID::random(), workShared = UUID::random(), homeCalendar = UUID::random();
    const UUID lapsedCalendar = UUID::random(), unowned = UUID::random();
    AppSnapshot snapshot;

    void SetUp() override {
        snapshot.accounts = {Account{.id = home, .isConnected = true}, Account{.id = work, .isConnected = true},
                             Account{.id = lapsed, .isConnected = false}};
        snapshot.calendars = {CalendarSource{.id = workHidden, .accountID = work, .isVisible = false},
                              CalendarSource{.id = workShared, .accountID = work},
                              CalendarSource{.id = homeCalendar, .accountID = home},
                              CalendarSource{.id = lapsedCalendar, .accountID = lapsed}, CalendarSource{.id = unowned}};
    }
};

// Asked with cross-account availability: every calendar of a connected account
// or of none, hidden ones too; without it, the destinations.
TEST_F(AvailabilityPolicyTest, ChecksStoredEventsWithoutCountingTheEditedGroup) {
    const auto at = [&](UUID calendar, double hours, Availability availability = Availability::busy) {
        return CalendarEvent{.id = UUID::random(), .groupID = UUID::random(), .start = monday(9), .end = monday(9 + hours),
                             .calendarID = calendar, .availability = availability};
    };
    const CalendarEvent edited = at(workHidden, 1);
    snapshot.events = {edited, at(homeCalendar, 0.01), at(workShared, 1, Availability::free), at(unowned, 1), at(lapsedCalendar, 1)};
    QTemporaryDir dir;
    auto service = std::make_shared<LocalCalendarService>(dir.filePath("state.json"));
    syncWait(service->save(snapshot));
    const auto check = [&](const EventDraft& draft) {
        return syncWait(AvailabilityPolicy::eventAvailability(service, draft, snapshot, tokyo()));
    };
    const EventDraft editing = EventDraft::fromEvent(edited, {workHidden}, tokyo());
    EventDraft fresh = editing;
    fresh.groupID.reset();
    const auto state = check(editing);
    ASSERT_TRUE(state.assessment()); // rows in snapshot order, none for the disconnected account
    EXPECT_EQ(state.assessment()->accounts, (std::vector<AccountAvailability>{{home, false}, {work, true}}));
    EXPECT_EQ(state.assessment()->isAccountAvailable(lapsed), std::nullopt);
    EXPECT_EQ(state.text(), "1 / 2つのアカウントで空き時間です");
    EXPECT_EQ(check(fresh).text(), "0 / 2つのアカウントで空き時間です");
    {
        // The question owns its service and its draft: the caller may drop
        // both while the answer is on its way.
        auto owned = std::exchange(service, nullptr);
        auto draft = std::make_unique<EventDraft>(editing);
        auto question = AvailabilityPolicy::eventAvailability(std::move(owned), *draft, snapshot, tokyo());
        draft.reset();
        EXPECT_EQ(syncWait(question).text(), "1 / 2つのアカウントで空き時間です");
        service = std::make_shared<LocalCalendarService>(dir.filePath("state.json"));
    }
    snapshot.preferences.crossAccountAvailability = false;
    EXPECT_EQ(AvailabilityPolicy::calendarIDs({workShared, UUID::random()}, snapshot), std::set{workShared});
    EXPECT_EQ(check(editing).text(), "選択した1つのアカウントで空き時間です");
    EXPECT_EQ(check(fresh).text(), "選択した0 / 1つのアカウントで空き時間です");
}

TEST_F(AvailabilityPolicyTest, AFailedQueryIsAnsweredWithAMessage) {
    const EventDraft draft{.start = monday(9), .end = monday(9.5), .calendarIDs = {workShared}};
    QTemporaryDir dir;
    QDir(dir.path()).mkdir("state.json"); // unreadable as a file
    auto service = std::make_shared<LocalCalendarService>(dir.filePath("state.json"));
    const auto state = syncWait(AvailabilityPolicy::eventAvailability(service, draft, snapshot, tokyo()));
    EXPECT_EQ(state.text(), "空き時間を確認できませんでした");
}

} // namespace
