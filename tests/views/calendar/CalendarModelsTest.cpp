#include "CalendarFixture.h"

#include "ai/AISchedule.h"
#include "support/TestWait.h"
#include "views/calendar/EventDetailModel.h"
#include "views/calendar/MonthModel.h"
#include "views/calendar/ReportModel.h"
#include "views/calendar/SearchModel.h"
#include "views/calendar/WeekModel.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <unordered_set>

using namespace tavelo;
using namespace tavelo::test;

namespace {

// Every list model under test is watched for inconsistent signals and must
// never reset.
class Watched {
public:
    explicit Watched(QAbstractItemModel* model)
        : tester_(model, QAbstractItemModelTester::FailureReportingMode::Fatal), resets_(model, &QAbstractItemModel::modelReset) {}
    int resets() const { return static_cast<int>(resets_.count()); }

private:
    QAbstractItemModelTester tester_;
    QSignalSpy resets_;
};

const CalendarItemRow* rowOf(const CalendarItemModel& model, int n, int day = -1) {
    for (const auto& row : model.rows())
        if (row.eventID == uuid(n) && (day < 0 || row.dayIndex == day)) return &row;
    return nullptr;
}

class CalendarModelsTest : public ::testing::Test, public CalendarWorkspace {
protected:
    template <class Model>
    void attach(Model& model) {
        model.setStore(store.get());
        model.setScene(scene.get());
    }
};

} // namespace

TEST_F(CalendarModelsTest, WeekShowsLanesAllDayBarsMergedCopiesAndBusyBlocks) {
    open();
    WeekModel week;
    Watched days(week.days()), allDay(week.allDayItems()), timed(week.timedItems());
    attach(week);

    ASSERT_EQ(week.days()->rows().size(), 7u);
    EXPECT_EQ(week.days()->rows().front().date, march(1));

    // Wednesday: the review beside the 1on1 and lunch.
    const auto* review = rowOf(*week.timedItems(), 1);
    ASSERT_TRUE(review);
    EXPECT_EQ(std::tuple(review->dayIndex, review->lane, review->laneCount), std::tuple(3, 0, 2));
    EXPECT_DOUBLE_EQ(review->top, 9 * 60.0);
    EXPECT_DOUBLE_EQ(review->height, 120.0);

    // The stand-up on two calendars stands once.
    const auto standups = std::count_if(week.timedItems()->rows().begin(), week.timedItems()->rows().end(),
                                        [](const CalendarItemRow& row) { return row.title == QStringLiteral("朝会"); });
    EXPECT_EQ(standups, 1);

    // The block shows, flagged; its source on the hidden calendar does not.
    const auto* block = rowOf(*week.timedItems(), 6);
    ASSERT_TRUE(block);
    EXPECT_TRUE(block->isBusyBlock);
    EXPECT_FALSE(rowOf(*week.timedItems(), 7));

    // The night shift is cut at midnight into two pieces.
    const auto* friday = rowOf(*week.timedItems(), 9, 5);
    const auto* saturday = rowOf(*week.timedItems(), 9, 6);
    ASSERT_TRUE(friday && saturday);
    EXPECT_DOUBLE_EQ(friday->top, 22 * 60.0);
    EXPECT_DOUBLE_EQ(friday->height, 120.0);
    EXPECT_DOUBLE_EQ(saturday->top, 0.0);
    EXPECT_DOUBLE_EQ(saturday->height, 120.0);

    // The trip is one bar from Tuesday over three days, not a timed entry.
    ASSERT_EQ(week.allDayItems()->rowCount(), 1);
    const auto& trip = week.allDayItems()->rows().front();
    EXPECT_EQ(std::tuple(trip.dayIndex, trip.dayCount, trip.lane), std::tuple(2, 3, 0));
    EXPECT_FALSE(rowOf(*week.timedItems(), 8));

    // Narrower hours clip and drop entries outside them.
    week.setFirstHour(8);
    week.setLastHour(20);
    EXPECT_DOUBLE_EQ(rowOf(*week.timedItems(), 1)->top, 60.0);
    EXPECT_FALSE(rowOf(*week.timedItems(), 9));

    // Paging replaces every row of the week without a reset.
    scene->moveSelectedDate(1, tokyo());
    EXPECT_EQ(week.days()->rows().front().date, march(8));
    EXPECT_FALSE(rowOf(*week.timedItems(), 1));
    EXPECT_EQ(timed.resets() + days.resets() + allDay.resets(), 0);
}

TEST_F(CalendarModelsTest, RowDiffKeepsOrderThroughShufflesInsertionsAndRemovals) {
    CalendarItemModel model;
    Watched watched(&model);
    std::mt19937 random(7);
    std::vector<CalendarItemRow> pool;
    for (int i = 0; i < 160; ++i) {
        CalendarItemRow row;
        row.eventID = uuid(i);
        row.dayIndex = i % 3;
        row.title = QString::number(i);
        pool.push_back(row);
    }
    std::vector<CalendarItemRow> next;
    for (int round = 0; round < 300; ++round) {
        if (round % 3 == 0) {
            // Large churn: a random subset in random order.
            next.clear();
            for (const auto& row : pool)
                if (random() % 3 != 0) next.push_back(row);
            std::shuffle(next.begin(), next.end(), random);
        } else {
            // Small edits: a row leaves, one arrives, one moves, one changes.
            if (!next.empty()) next.erase(next.begin() + static_cast<std::ptrdiff_t>(random() % next.size()));
            const auto& arriving = pool[random() % pool.size()];
            if (std::none_of(next.begin(), next.end(), [&](const auto& row) { return row.key() == arriving.key(); }))
                next.insert(next.begin() + static_cast<std::ptrdiff_t>(random() % (next.size() + 1)), arriving);
            if (next.size() > 2) std::swap(next[random() % next.size()], next[random() % next.size()]);
            if (!next.empty()) next[random() % next.size()].top = static_cast<double>(random() % 100);
        }
        model.setRows(next);
        ASSERT_EQ(model.rows(), next) << "round " << round;
        ASSERT_EQ(model.rowCount(), static_cast<int>(next.size()));
    }
    EXPECT_EQ(watched.resets(), 0);
}

// Dragging with the mouse and moving to the file are driven through the QML
// view; here what it does not show: the calendar of a new draft, resizing and
// what refuses to drag.
TEST_F(CalendarModelsTest, DragsCreateDraftsOnTheDefaultCalendarAndResizeToTheFile) {
    open();
    WeekModel week;
    attach(week);
    week.setDayWidth(100);

    // Drag on empty Monday space from 13:10 down to 14:20.
    week.beginCreate(60 + 150, 13 * 60 + 10);
    week.updateCreate(60 + 120, 14 * 60 + 20);
    EXPECT_TRUE(week.finishCreate());
    ASSERT_TRUE(scene->pendingEventDraft());
    EXPECT_EQ(scene->pendingEventDraft()->calendarIDs, std::vector<UUID>{work});

    // Resize the review: 31 points is 30 minutes.
    QSignalSpy saved(&week, &WeekModel::dragSaved);
    ASSERT_TRUE(week.beginResize(uuid(1).toString()));
    week.updateResize(31);
    EXPECT_TRUE(week.finishDrag());
    ASSERT_TRUE(saved.count() || saved.wait(5000));
    EXPECT_TRUE(saved.takeFirst().at(0).toBool());
    EXPECT_EQ(storedEvent(stored(), 1)->end, march(4, 11, 30));
    EXPECT_EQ(storedEvent(stored(), 1)->start, march(4, 9));

    // Blocks and all-day bars do not drag.
    EXPECT_FALSE(week.beginMove(uuid(6).toString()));
    EXPECT_FALSE(week.beginResize(uuid(8).toString()));
}

TEST_F(CalendarModelsTest, DetailResolvesBlocksAndDeletesTheWholeGroup) {
    open();
    WeekModel week;
    EventDetailModel detail;
    attach(week);
    attach(detail);

    // A click on the block opens the visit it mirrors, anchored on the block.
    const auto* block = rowOf(*week.timedItems(), 6);
    ASSERT_TRUE(block);
    week.openDetail(uuid(6).toString(), "weekTimed", block->dayIndex, block->lane);
    EXPECT_EQ(scene->selectedEventID(), uuid(7));
    EXPECT_TRUE(week.isDetailPresented(uuid(6).toString(), "weekTimed", block->dayIndex, block->lane));
    EXPECT_FALSE(week.isDetailPresented(uuid(6).toString(), "weekAllDay", block->dayIndex, block->lane));
    EXPECT_EQ(detail.title(), QStringLiteral("顧客訪問"));

    // The stand-up stands on two calendars; delete asks about both.
    week.openDetail(uuid(4).toString(), "weekTimed", 4, 0);
    EXPECT_EQ(detail.copyCount(), 2);
    EXPECT_TRUE(detail.deleteQuestion().contains(QStringLiteral("2 つのカレンダー")));
    detail.edit();
    EXPECT_EQ(scene->editorPresentation(), EditorPresentation::edit(uuid(4)));

    week.openDetail(uuid(4).toString(), "weekTimed", 4, 0);
    QSignalSpy deleted(&detail, &EventDetailModel::deleted);
    detail.deleteEvent();
    ASSERT_TRUE(deleted.count() || deleted.wait(5000));
    EXPECT_TRUE(deleted.takeFirst().at(0).toBool());
    const AppSnapshot after = stored();
    EXPECT_FALSE(storedEvent(after, 4) || storedEvent(after, 5));
    EXPECT_FALSE(rowOf(*week.timedItems(), 4));
}

TEST_F(CalendarModelsTest, MonthCellsOverflowAndFollowThePage) {
    // Four more events on Wednesday: seven entries with the trip.
    for (int i = 0; i < 4; ++i) seed.events.push_back(event(30 + i, march(4, 14 + i), march(4, 15 + i), work));
    open();
    MonthModel month;
    Watched days(month.days());
    attach(month);

    ASSERT_EQ(month.days()->rowCount(), 42);
    EXPECT_EQ(month.titleText(), QStringLiteral("2026年3月"));
    const auto& rows = month.days()->rows();
    EXPECT_EQ(rows.front().date, march(1));
    const DayRow& wednesday = rows[3];
    EXPECT_EQ(wednesday.itemCount, 8);
    ASSERT_EQ(wednesday.items.size(), 3u);
    EXPECT_EQ(wednesday.items.front().title, QStringLiteral("大阪出張")); // all-day first
    EXPECT_EQ(wednesday.overflowText, QStringLiteral("他 5 件"));
    EXPECT_EQ(rows[5].items.size(), 2u); // Friday: block and night shift; the trip ended
    // The night shift reaches into Saturday.
    EXPECT_EQ(rows[6].items.size(), 1u);
    EXPECT_EQ(rows[6].items.front().timeText, QStringLiteral("00:00"));

    month.openDetail(uuid(1).toString(), 3);
    EXPECT_TRUE(month.isDetailPresented(uuid(1).toString(), 3));
    EXPECT_FALSE(month.isDetailPresented(uuid(1).toString(), 4));

    // Paging a month redraws.
    scene->selectNavigation(NavigationItem::month);
    scene->moveSelectedDate(1, tokyo());
    EXPECT_EQ(month.titleText(), QStringLiteral("2026年4月"));
    EXPECT_EQ(days.resets(), 0);
}

TEST_F(CalendarModelsTest, SearchNarrowsAsYouTypeAndIncludesThePastOnRequest) {
    open();
    SearchModel search;
    Watched results(search.results());
    attach(search);

    EXPECT_EQ(search.results()->rowCount(), 0);
    search.setQuery(QStringLiteral("設計"));
    ASSERT_EQ(search.results()->rowCount(), 2);
    EXPECT_EQ(search.results()->rows()[0].eventID, uuid(20));

    search.setQuery(QStringLiteral("設計メモ"));
    EXPECT_EQ(search.results()->rowCount(), 1);

    // Past results come with the preference, which is saved.
    search.setQuery(QStringLiteral("設計"));
    QSignalSpy toggled(&search, &SearchModel::includePastChanged);
    search.setIncludePast(true);
    ASSERT_TRUE(toggled.count() || toggled.wait(5000));
    EXPECT_TRUE(search.includePast());
    EXPECT_EQ(search.results()->rowCount(), 5); // + the review, its preparation and the look back
    EXPECT_TRUE(search.results()->rows().front().isPast);
    // The preference reaches the file once the store's write is done.
    EXPECT_TRUE(tavelo::testing::waitUntil([&] { return stored().preferences.includePastSearchResults; }));

    // A new matching event arrives without retyping.
    EventDraft draft{.title = "設計合宿", .start = fromToday(5, 9), .end = fromToday(5, 17), .calendarIDs = {work}};
    ASSERT_TRUE(syncWait(store->saveEvent(draft, std::nullopt)));
    EXPECT_EQ(search.results()->rowCount(), 6);
    EXPECT_EQ(results.resets(), 0);
}

TEST_F(CalendarModelsTest, ReportComparesTagsWithTargetsAndThePreviousPeriod) {
    open();
    ReportModel report;
    Watched rows(&report);
    report.setReferenceDate(march(4, 12));
    report.setStore(store.get());

    ASSERT_EQ(report.rowCount(), 3);
    const auto& develop = report.rows()[0];
    EXPECT_EQ(develop.name, QStringLiteral("開発"));
    EXPECT_EQ(std::tuple(develop.minutes, develop.previousMinutes, develop.targetMinutes), std::tuple(120, 60, 120));
    EXPECT_FALSE(develop.isOverTarget);
    const auto& meeting = report.rows()[1];
    EXPECT_EQ(std::tuple(meeting.minutes, meeting.previousMinutes, meeting.targetMinutes), std::tuple(60, 0, 60));
    // Lunch, the stand-up once, and the night shift; no block, no trip.
    const auto& untagged = report.rows()[2];
    EXPECT_EQ(untagged.id, QStringLiteral("untagged"));
    EXPECT_EQ(untagged.minutes, 60 + 30 + 240);
    EXPECT_EQ(report.totalMinutes(), 120 + 60 + 330);
    EXPECT_EQ(report.previousTotalMinutes(), 60);

    // Going over the target shows.
    ASSERT_TRUE(syncWait(store->moveEvent(uuid(2), {march(4, 12), march(4, 14)})));
    EXPECT_TRUE(report.rows()[1].isOverTarget);

    // A month scales the weekly target to its 31 days.
    report.setPeriod(QStringLiteral("month"));
    EXPECT_EQ(report.rows()[0].targetMinutes, 531); // 120 * 31 / 7 = 531.4
    EXPECT_EQ(rows.resets(), 0);
}

TEST_F(CalendarModelsTest, AIScheduleRunsStandInTheGridWithinTheShownHours) {
    AICloudState state;
    state.schedules = {AISchedule{.id = uuid(0x51), .title = "朝のまとめ", .prompt = "今日の予定を要約",
                                  .firstRun = march(2, 7, 30), .timeZoneID = "Asia/Tokyo",
                                  .recurrence = EventRecurrence::daily},
                       AISchedule{.id = uuid(0x52), .title = "週報", .prompt = "週報を作成",
                                  .firstRun = march(6, 7, 30), .timeZoneID = "Asia/Tokyo", .isPaused = true}};
    std::vector<Date> days;
    for (int day = 1; day <= 7; ++day) days.push_back(march(day));

    const auto rows = WeekModel::aiRows(state, days, TimeGridHours{0, 24}, tokyo());
    // Daily from Monday: six runs; the paused one once, on Friday, beside it.
    ASSERT_EQ(rows.size(), 7u);
    EXPECT_EQ(rows.front().dayIndex, 1);
    EXPECT_DOUBLE_EQ(rows.front().top, 7.5 * 60);
    std::unordered_set<RowKey> keys;
    for (const auto& row : rows) keys.insert(row.key());
    EXPECT_EQ(keys.size(), rows.size());

    // Starting the day at 8:00 leaves the 7:30 runs out.
    EXPECT_TRUE(WeekModel::aiRows(state, days, TimeGridHours{8, 20}, tokyo()).empty());
}
