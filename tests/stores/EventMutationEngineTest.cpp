#include "stores/EventMutationEngine.h"

#include "StoreTestSupport.h"

#include <gtest/gtest.h>

#include <functional>

using namespace tavelo;
using namespace tavelo::test;

namespace {

using Kind = EventValidationError::Kind;

std::optional<Kind> failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const EventValidationError& error) {
        return error.kind();
    }
    return std::nullopt;
}

std::vector<UUID> calendarsOf(const std::vector<CalendarEvent>& events, bool blocks) {
    std::vector<UUID> ids;
    for (const auto& event : events)
        if (event.isGeneratedBusyBlock == blocks) ids.push_back(event.calendarID);
    return ids;
}

class EventMutationEngineTest : public ::testing::Test {
protected:
    const UUID workAccount = UUID::random(), personalAccount = UUID::random();
    const UUID work = UUID::random();     // work account, receives blocks
    const UUID personal = UUID::random(); // personal account, receives blocks
    const UUID unowned = UUID::random();  // no account, receives blocks
    const UUID orphaned = UUID::random(); // account missing from the snapshot, receives blocks
    const UUID quiet = UUID::random();    // work account, never receives blocks
    const UUID local = CalendarSource::tavelo().id;
    AppSnapshot snapshot;

    void SetUp() override {
        snapshot.accounts = {Account{.id = workAccount, .kind = AccountKind::work},
                             Account{.id = personalAccount, .kind = AccountKind::personal}};
        const auto source = [](UUID id, std::optional<UUID> account, bool receives) {
            return CalendarSource{.id = id, .accountID = account, .receivesBusyBlocks = receives};
        };
        snapshot.calendars = {source(work, workAccount, true),     source(personal, personalAccount, true),
                              source(unowned, std::nullopt, true), source(orphaned, UUID::random(), true),
                              source(quiet, workAccount, false),   CalendarSource::tavelo()};
    }

    static EventDraft draft(std::vector<UUID> calendarIDs, QString title = "Design review") {
        return EventDraft{.title = std::move(title), .start = monday(9), .end = monday(10), .calendarIDs = std::move(calendarIDs)};
    }
    std::vector<CalendarEvent> create(const EventDraft& d) const {
        return EventMutationEngine::create(d, d.calendarIDs, snapshot, tokyo());
    }
};

TEST(EventDraftBoundsTest, AllDayDraftsStoreAnExclusiveEndThatEditingTakesBack) {
    struct Case { const DateCalendar& calendar; int day; double storedHours; };
    for (const Case& c : {Case{tokyo(), 8, 24}, Case{newYork(), 8, 23}, Case{newYork(), 9, 24}}) {
        SCOPED_TRACE(c.calendar.timeZoneID().toStdString() + " day " + std::to_string(c.day));
        const Date midnight = on(c.calendar, 3, c.day);
        const EventDraft draft{.start = midnight.addingSeconds(3 * 3600), .end = midnight.addingSeconds(5 * 3600), .isAllDay = true};
        const EventDraft stored = draft.normalizedForMutation(c.calendar);
        EXPECT_EQ(stored.start, midnight);
        EXPECT_EQ(stored.end.secondsSince(stored.start), c.storedHours * 3600);
        const CalendarEvent event{.groupID = UUID::random(), .start = stored.start, .end = stored.end, .isAllDay = true};
        EXPECT_EQ(EventDraft::fromEvent(event, {}, c.calendar).end, midnight);
    }
}

// The engine and the editor check the same things in the same order.
TEST_F(EventMutationEngineTest, ValidationChecksTitleThenRangeThenCalendars) {
    const UUID stale = UUID::random();
    // The editor sees the ids as given; rows with repeated or unknown ids are for the engine alone.
    struct Case { QString title; double hours; bool allDay; std::vector<UUID> ids; std::optional<Kind> expected; bool inEditorToo = true; };
    const std::vector<Case> cases = {
        {QStringLiteral("\u3000\t"), 0, false, {}, Kind::blankTitle},
        {"x", 0, false, {}, Kind::invalidDateRange},
        {"x", 1, false, {stale, stale}, Kind::noCalendars, false},
        {"", 1, false, {local}, std::nullopt}, // untitled only on the local calendar alone
        {" \n", 1, false, {local, local}, std::nullopt, false},
        {"", 1, false, {local, work}, Kind::blankTitle},
        {"x", 0, true, {work}, std::nullopt}, // a one-day all-day draft
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.title.toStdString() + " " + std::to_string(c.hours) + " " + std::to_string(c.ids.size()));
        EventDraft d = draft(c.ids, c.title);
        d.end = d.start.addingSeconds(c.hours * 3600);
        d.isAllDay = c.allDay;
        EXPECT_EQ(failureOf([&] { create(d); }), c.expected);
        if (c.inEditorToo) {
            EXPECT_EQ(d.validationMessage({work}, tokyo()),
                      c.expected ? EventValidationError(*c.expected).errorDescription() : std::nullopt);
        }
    }
    EXPECT_EQ(EventMutationEngine::uniqueCalendarIDs({personal, stale, work, personal, local}, snapshot),
              (std::vector<UUID>{personal, work, local}));
}

TEST(GuestAddressTest, FollowsWhatGoogleAccepts) {
    for (const char* address : {"ann@example.com", " o'neil+x@mail.example.co.jp\n", "a.b~c@x-y.io"})
        EXPECT_TRUE(isValidGuestEmail(QString::fromUtf8(address))) << address;
    for (const char* address : {"ann", "ann@@example.com", "@example.com", "ann@", ".ann@example.com", "ann.@example.com",
                                "an..n@example.com", "an n@example.com", "ann@exa_mple.com", "ann@example..com",
                                "ann@localhost", "ann@-x.com", "ann@例え.jp"})
        EXPECT_FALSE(isValidGuestEmail(QString::fromUtf8(address))) << address;
}

TEST_F(EventMutationEngineTest, BusyBlocksFollowTheScope) {
    struct Case { const char* name; std::function<void(AppSnapshot&, EventDraft&)> setUp; std::vector<UUID> destinations, expected; };
    const auto scope = [](BusyBlockScope value, std::set<UUID> custom = {}) {
        return [=](AppSnapshot& s, EventDraft&) {
            s.preferences.busyBlockScope = value;
            s.preferences.customBusyBlockCalendarIDs = custom;
        };
    };
    const std::vector<Case> cases = {
        {"all", scope(BusyBlockScope::all), {quiet}, {work, personal, unowned, orphaned}},
        {"destinations get no block", scope(BusyBlockScope::all), {personal, work}, {unowned, orphaned}},
        {"work accounts only", scope(BusyBlockScope::workOnly), {quiet}, {work}},
        {"custom, in calendar order", scope(BusyBlockScope::custom, {orphaned, personal, quiet}), {work}, {personal, orphaned}},
        {"free draft", [](auto&, auto& d) { d.availability = Availability::free; }, {quiet}, {}},
        {"automatic blocks off", [](auto& s, auto&) { s.preferences.automaticBusyBlocks = false; }, {quiet}, {}},
        {"local calendar among destinations", scope(BusyBlockScope::all), {quiet, local}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        AppSnapshot s = snapshot;
        EventDraft d = draft(c.destinations);
        c.setUp(s, d);
        const auto events = EventMutationEngine::create(d, d.calendarIDs, s, tokyo());
        EXPECT_EQ(calendarsOf(events, false), c.destinations);
        EXPECT_EQ(calendarsOf(events, true), c.expected);
    }
}

TEST_F(EventMutationEngineTest, CreateCopiesEveryFieldThenMakesPrivateBlocksOfThePrimary) {
    snapshot.preferences.busyBlockScope = BusyBlockScope::workOnly;
    const CalendarEvent model{
        .kind = EventKind::task, .title = "Review", .start = monday(0), .end = monday(48), .isAllDay = true,
        .recurrence = EventRecurrence::weekly, .calendarID = personal, .tagID = UUID::random(), .location = "Room 4",
        .notes = "agenda",
        .guests = {Guest{UUID::random(), "Ann", "ann@example.com", GuestStatus::accepted}}, .notifications = {10},
        .meetURL = QUrl("https://meet.example.com/x"), .visibility = EventVisibility::privateTitle, .isCompleted = true,
        .externalUID = "uid-1"};
    const auto events = create(EventDraft::fromEvent(model, {personal, quiet}, tokyo()));
    ASSERT_EQ(events.size(), 3u);
    auto expected = model;
    expected.id = events[0].id;
    expected.groupID = events[0].groupID;
    EXPECT_EQ(events[0], expected);
    expected.id = events[1].id;
    expected.calendarID = quiet;
    EXPECT_EQ(events[1], expected);
    EXPECT_NE(events[1].id, events[0].id);
    EXPECT_EQ(events[2], (CalendarEvent{.id = events[2].id, .groupID = expected.groupID, .sourceEventID = events[0].id,
                                        .title = "予定あり", .start = model.start, .end = model.end, .isAllDay = true,
                                        .recurrence = EventRecurrence::weekly, .calendarID = work,
                                        .visibility = EventVisibility::privateDetails, .isGeneratedBusyBlock = true}));
}

// A lower sortOrder beats a later title rule, equal ones keep list order, and
// a blank title rule passes over to the tag's next rule; each copy on its own.
TEST_F(EventMutationEngineTest, TagRulesWalkSortedTagsPerCopy) {
    const auto tag = [](int order, std::vector<TagRuleCondition> conditions) {
        Tag t{.id = UUID::random(), .sortOrder = order};
        for (auto& condition : conditions) t.rules.push_back(TagRule{UUID::random(), std::move(condition)});
        return t;
    };
    const Tag late = tag(5, {TagRuleCondition::titleContains("RÉVIEW")});
    const Tag blank = tag(0, {TagRuleCondition::titleContains(" \n "), TagRuleCondition::calendarEquals(unowned)});
    const Tag tieFirst = tag(1, {TagRuleCondition::calendarEquals(personal)});
    const Tag tieSecond = tag(1, {TagRuleCondition::calendarEquals(personal)});
    snapshot.tags = {late, tieFirst, blank, tieSecond};
    snapshot.preferences.automaticBusyBlocks = false;
    std::vector<std::optional<UUID>> tags;
    for (const auto& event : create(draft({personal, work, unowned}, "Weekly review"))) tags.push_back(event.tagID);
    EXPECT_EQ(tags, (std::vector<std::optional<UUID>>{tieFirst.id, late.id, blank.id}));
}

TEST_F(EventMutationEngineTest, UpdateKeepsTheIdentityOfCopiesAndBlocksThatStay) {
    snapshot.preferences.busyBlockScope = BusyBlockScope::custom;
    snapshot.preferences.customBusyBlockCalendarIDs = {unowned};
    const Tag rule{.id = UUID::random(), .rules = {TagRule{UUID::random(), TagRuleCondition::titleContains("review")}}};
    snapshot.tags = {rule};
    auto group = create(draft({work, personal}));
    ASSERT_EQ(calendarsOf(group, true), std::vector<UUID>{unowned});
    const UUID groupID = group[0].groupID;
    for (auto& e : group) {
        e.googleEventID = e.googleETag = e.id.toString();
        e.googleUpdatedAt = monday(-1);
    }
    group[1].externalUID = "ical-1";
    group[1].tagID = UUID::random();
    auto stray = group[1]; // a second copy on personal: the first one stays
    stray.id = UUID::random();
    const CalendarEvent other{.id = UUID::random(), .groupID = UUID::random(), .calendarID = work};
    snapshot.events = {other, group[0], group[1], stray, group[2]};

    // Off the first calendar: the remaining copy becomes the primary.
    EventDraft edit = EventDraft::fromEvent(group[1], {personal, personal}, tokyo());
    edit.title = "Renamed review";
    edit.externalUID.reset();
    edit.tagID.reset();
    const auto updated = EventMutationEngine::update(groupID, edit, snapshot, tokyo());
    ASSERT_EQ(updated.size(), 2u);
    auto expectedCopy = group[1];
    expectedCopy.title = edit.title; // Google fields and UID kept; its own tag beats the rules
    EXPECT_EQ(updated[0], expectedCopy);
    auto expectedBlock = group[2];
    expectedBlock.sourceEventID = group[1].id;
    EXPECT_EQ(updated[1], expectedBlock);

    // Back onto two calendars: a fresh copy tagged by the rules; the draft's own
    // values win where it has them.
    EventDraft again = edit;
    again.calendarIDs = {work, personal};
    again.externalUID = "ical-2";
    snapshot.events = {other, updated[0], updated[1]};
    const auto regrouped = EventMutationEngine::update(groupID, again, snapshot, tokyo());
    ASSERT_EQ(regrouped.size(), 3u);
    EXPECT_NE(regrouped[0].id, group[0].id);
    EXPECT_EQ(std::tuple(regrouped[0].googleEventID, regrouped[0].tagID), std::tuple(std::nullopt, rule.id));
    EXPECT_EQ(std::tuple(regrouped[1].id, regrouped[1].externalUID), std::tuple(group[1].id, again.externalUID));
    EXPECT_EQ(std::tuple(regrouped[2].id, regrouped[2].sourceEventID), std::tuple(group[2].id, regrouped[0].id));
}

} // namespace
