// The shell's C++ models over a real SQLite-backed store: the calendar list,
// the toolbar, the event editor and the tag settings.

#include "views/shell/CalendarListModel.h"
#include "views/shell/EventEditorModel.h"
#include "views/shell/GoogleAccountListModel.h"
#include "views/shell/GoogleAccountsDouble.h"
#include "views/shell/ShellController.h"
#include "views/shell/ShellWorkspace.h"
#include "views/shell/TagListModel.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace tavelo;
using namespace tavelo::shell;
using namespace tavelo::test;

namespace {

QStringList column(const QAbstractItemModel& model, int role) {
    QStringList values;
    for (int row = 0; row < model.rowCount(); ++row) values.push_back(model.index(row, 0).data(role).toString());
    return values;
}

class ShellModelsTest : public ::testing::Test {
protected:
    ShellModelsTest() { w.open(); }
    ShellWorkspace w;
};

} // namespace

// --- calendar list -------------------------------------------------------------------

TEST_F(ShellModelsTest, CalendarListGroupsByAccountAndFollowsTheStoreByRows) {
    CalendarListModel model;
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    model.setStoreObject(w.store.get());
    EXPECT_EQ(column(model, CalendarListModel::NameRole), (QStringList{"メモ", "業務", "自宅"}));
    EXPECT_EQ(column(model, CalendarListModel::AccountNameRole),
              (QStringList{"このコンピューター", "me@work.example", "家族"}));

    // Hiding a calendar reaches the file.
    QSignalSpy reset(&model, &QAbstractItemModel::modelReset);
    model.toggleVisibility(1);
    ASSERT_TRUE(waitUntil([&] { return !model.index(1, 0).data(CalendarListModel::VisibleRole).toBool(); }));
    ASSERT_TRUE(waitUntil([&] { return !w.store->isPersistenceTransactionActive(); }));
    const auto stored = w.stored();
    const auto work = std::find_if(stored.calendars.begin(), stored.calendars.end(),
                                   [&](const CalendarSource& c) { return c.id == w.work; });
    ASSERT_NE(work, stored.calendars.end());
    EXPECT_FALSE(work->isVisible);

    // Calendars that arrive, leave and move are inserted and removed by rows.
    AppSnapshot next = w.store->snapshot();
    next.calendars.erase(next.calendars.begin());                 // 業務 goes
    next.calendars.push_back(CalendarSource{.id = uuid(0xC4), .accountID = w.workAccount, .name = "採用"});
    next.accounts = {next.accounts[1], next.accounts[0]};         // 家族 first
    w.store->apply(next);
    EXPECT_EQ(column(model, CalendarListModel::NameRole), (QStringList{"メモ", "自宅", "採用"}));
    EXPECT_EQ(reset.count(), 0);
}

// --- toolbar -----------------------------------------------------------------------

TEST_F(ShellModelsTest, ToolbarShowsTheRangeAndPagesByWeekOrMonth) {
    ShellController shell;
    shell.setStoreObject(w.store.get());
    shell.setSceneObject(w.scene.get());
    EXPECT_EQ(shell.rangeText(), "2026年3月1日（日） 〜 7日（土）");
    QSignalSpy range(&shell, &ShellController::rangeTextChanged);
    shell.page(4);
    EXPECT_EQ(shell.rangeText(), "2026年3月29日（日） 〜 4月4日（土）");
    EXPECT_EQ(range.count(), 1);
    shell.navigate("month");
    shell.page(-1);
    EXPECT_EQ(shell.rangeText(), "2026年3月");
    shell.moveSelectedDay(-20);
    EXPECT_EQ(shell.rangeText(), "2026年2月");

    // Across a year, the end names its year.
    w.scene->setSelectedDate(on(tokyo(), 12, 31, 12));
    shell.navigate("week");
    EXPECT_EQ(shell.rangeText(), "2026年12月27日（日） 〜 2027年1月2日（土）");
}

// --- the event editor ----------------------------------------------------------------

TEST_F(ShellModelsTest, EditorOpensWithThePendingDraftAndSavesEveryCopy) {
    EventEditorModel editor;
    QAbstractItemModelTester tester(qobject_cast<QAbstractItemModel*>(editor.calendars()),
                                    QAbstractItemModelTester::FailureReportingMode::Fatal);
    editor.setStoreObject(w.store.get());
    editor.setSceneObject(w.scene.get());
    EXPECT_FALSE(editor.isOpen());

    w.scene->setPendingEventDraft(EventDraft{.start = ShellWorkspace::march(5, 13),
                                             .end = ShellWorkspace::march(5, 14, 30), .calendarIDs = {w.work}});
    w.scene->setEditorPresentation(EditorPresentation::create());
    ASSERT_TRUE(editor.isOpen());
    EXPECT_TRUE(editor.isCreate());
    EXPECT_EQ(editor.startDay(), QDate(2026, 3, 5));
    EXPECT_EQ(editor.startTime(), "13:00");
    EXPECT_EQ(editor.endTime(), "14:30");

    // Moving the start keeps the length; an end before the start is refused.
    editor.setTitle("採用面接");
    EXPECT_TRUE(editor.canSave());
    editor.setStartTime("16:15");
    EXPECT_EQ(editor.endTime(), "17:45");
    editor.setEndTime("15:00");
    EXPECT_FALSE(editor.canSave());
    editor.setEndTime("17:00");
    editor.toggleCalendar(1); // and 自宅
    EXPECT_TRUE(editor.addGuest(" sato@example.jp "));

    // Saving reaches the file, closes the editor and clears the scene.
    QSignalSpy finished(&editor, &EventEditorModel::saveFinished);
    editor.save();
    ASSERT_TRUE(waitUntil([&] { return finished.count() == 1; }));
    EXPECT_TRUE(finished.at(0).at(0).toBool());
    EXPECT_FALSE(w.scene->editorPresentation());
    const auto stored = w.stored();
    int copies = 0;
    for (const CalendarEvent& e : stored.events) {
        if (e.title != "採用面接") continue;
        ++copies;
        EXPECT_EQ(e.start, ShellWorkspace::march(5, 16, 15));
        EXPECT_EQ(e.end, ShellWorkspace::march(5, 17));
        ASSERT_EQ(e.guests.size(), 1u);
        EXPECT_EQ(e.guests[0].email, "sato@example.jp");
    }
    EXPECT_EQ(copies, 2);
}

TEST_F(ShellModelsTest, EditorEditsAWholeGroupAndAnAllDayEventKeepsItsDays) {
    EventEditorModel editor;
    editor.setStoreObject(w.store.get());
    editor.setSceneObject(w.scene.get());
    w.scene->setEditorPresentation(EditorPresentation::edit(uuid(2)));
    ASSERT_TRUE(editor.isOpen());
    EXPECT_EQ(editor.title(), "設計レビュー");

    // All day over two days, then moved by a week: the last day moves along.
    editor.setAllDay(true);
    editor.setEndDay(QDate(2026, 3, 5));
    editor.setStartDay(QDate(2026, 3, 11));
    EXPECT_EQ(editor.endDay(), QDate(2026, 3, 12));

    QSignalSpy finished(&editor, &EventEditorModel::saveFinished);
    editor.save();
    ASSERT_TRUE(waitUntil([&] { return finished.count() == 1; }));
    // Both copies stay and move together.
    const auto stored = w.stored();
    int copies = 0;
    for (const CalendarEvent& e : stored.events) {
        if (e.groupID != uuid(0x1001)) continue;
        ++copies;
        EXPECT_TRUE(e.isAllDay);
        EXPECT_EQ(e.start, ShellWorkspace::march(11));
        EXPECT_EQ(e.end, ShellWorkspace::march(13)); // exclusive end, stored
    }
    EXPECT_EQ(copies, 2);

    // Escape: nothing of an edit is kept.
    w.scene->setEditorPresentation(EditorPresentation::edit(uuid(1)));
    editor.setTitle("変更");
    editor.cancel();
    EXPECT_FALSE(editor.isOpen());
    EXPECT_EQ(w.stored().events.front().title, "設計レビュー");
}

// --- tags ----------------------------------------------------------------------------

TEST_F(ShellModelsTest, TagSettingsChangeTheStoredTags) {
    TagListModel tags;
    QAbstractItemModelTester tester(&tags, QAbstractItemModelTester::FailureReportingMode::Fatal);
    tags.setStoreObject(w.store.get());
    EXPECT_EQ(column(tags, TagListModel::NameRole), (QStringList{"開発", "会議"}));

    EXPECT_TRUE(tags.addTag("  採用  ", "#EA4335"));
    ASSERT_TRUE(waitUntil([&] { return tags.rowCount() == 3; }));

    tags.moveTag(2, 0);
    ASSERT_TRUE(waitUntil([&] { return column(tags, TagListModel::NameRole).front() == "採用"; }));
    tags.setWeeklyTarget(1, 2.5, true);
    tags.addTitleRule(1, "  レビュー ");
    tags.addCalendarRule(1, w.work.toString());
    ASSERT_TRUE(waitUntil([&] { return tags.index(1, 0).data(TagListModel::RulesRole).toStringList().size() == 2; }));
    tags.deleteTag(2);
    ASSERT_TRUE(waitUntil([&] { return tags.rowCount() == 2 && !w.store->isPersistenceTransactionActive(); }));

    const auto stored = w.stored();
    ASSERT_EQ(stored.tags.size(), 2u);
    EXPECT_EQ(stored.tags[0].name, "採用");
    EXPECT_EQ(stored.tags[1].name, "開発");
    EXPECT_EQ(stored.tags[1].weeklyTargetMinutes, 150);
    EXPECT_TRUE(stored.tags[1].warnsWhenExceeded);
    EXPECT_EQ(stored.tags[1].rules.size(), 2u);
}

// --- Google accounts -----------------------------------------------------------------

namespace {

class GoogleAccountsTest : public ::testing::Test {
protected:
    ShellWorkspace w;
    std::shared_ptr<GoogleAccountsDouble> google = std::make_shared<GoogleAccountsDouble>();
    const UUID privateAccount = uuid(0xA3);
};

} // namespace

TEST_F(GoogleAccountsTest, StatusesWarningsAndLastSyncFollowTheStoreByRows) {
    w.seed.accounts[0].lastSync = ShellWorkspace::march(4, 8, 5);
    google->statuses[w.workAccount] = GoogleSyncStatus::connected;
    google->warnings[w.workAccount] = {GoogleSyncWarning::skippedEvents(w.work, 3),
                                       GoogleSyncWarning::calendarFailed(uuid(0xCF))};
    w.open(ShellWorkspace::march(4, 12), google);

    GoogleAccountListModel model;
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    model.setStoreObject(w.store.get());
    ASSERT_EQ(model.rowCount(), 1);
    const QModelIndex work = model.index(0, 0);
    EXPECT_EQ(work.data(GoogleAccountListModel::StatusMessageRole).toString(), "一部の項目を確認してください");
    EXPECT_EQ(work.data(GoogleAccountListModel::WarningsRole).toStringList(),
              (QStringList{"「業務」の3件の予定を読み込めませんでした。", "「（削除済みのカレンダー）」を同期できませんでした。"}));
    EXPECT_EQ(work.data(GoogleAccountListModel::LastSyncTextRole).toString(), "最終同期 2026年3月4日 8:05");

    // A second account that needs reconnecting arrives as one inserted row.
    QSignalSpy reset(&model, &QAbstractItemModel::modelReset);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    AppSnapshot next = w.store->snapshot();
    next.accounts.push_back(Account{.id = privateAccount, .name = "個人", .email = "me@gmail.example",
                                    .googleSubject = QStringLiteral("sub-2")});
    w.store->apply(next);
    ASSERT_EQ(model.rowCount(), 2);
    EXPECT_TRUE(model.index(1, 0).data(GoogleAccountListModel::NeedsReconnectRole).toBool());
    EXPECT_EQ(model.index(1, 0).data(GoogleAccountListModel::LastSyncTextRole).toString(), "まだ同期していません");
    EXPECT_EQ(inserted.count(), 1);
    EXPECT_EQ(reset.count(), 0);
}

// Connecting and disconnecting, and one sign-in at a time, are driven
// through the accounts page and the store's own tests.
TEST_F(GoogleAccountsTest, TheActionsReachGoogleForTheAccountOfTheirRow) {
    w.seed.accounts.push_back(Account{.id = privateAccount, .name = "個人", .email = "me@gmail.example",
                                      .googleSubject = QStringLiteral("sub-2")});
    google->statuses[privateAccount] = GoogleSyncStatus::reconnectRequired;
    w.open(ShellWorkspace::march(4, 12), google);
    GoogleAccountListModel model;
    model.setStoreObject(w.store.get());
    ASSERT_EQ(column(model, GoogleAccountListModel::EmailRole), (QStringList{"me@work.example", "me@gmail.example"}));

    model.syncAccount(1);
    ASSERT_TRUE(waitUntil([&] { return !google->synced.empty() && !model.isSyncing(); }));
    EXPECT_EQ(google->synced, std::vector<UUID>{privateAccount});

    ASSERT_TRUE(model.reconnectAccount(1));
    ASSERT_TRUE(waitUntil([&] { return !google->reconnected.empty() && !model.isSyncing(); }));
    EXPECT_EQ(google->reconnected, std::vector<UUID>{privateAccount});
    EXPECT_EQ(google->connects, 0);
}
