#include "views/shell/ShellController.h"

#include "ai/AICloudStore.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/CalendarMath.h"
#include "views/shell/ShellTasks.h"

namespace tavelo::shell {

namespace {

const QString kWeekdays[] = {QStringLiteral("日"), QStringLiteral("月"), QStringLiteral("火"), QStringLiteral("水"),
                             QStringLiteral("木"), QStringLiteral("金"), QStringLiteral("土")};

QString dayText(const DateCalendar::Components& c, bool withYear, bool withMonth) {
    QString text;
    if (withYear) text += QStringLiteral("%1年").arg(c.year);
    if (withMonth) text += QStringLiteral("%1月").arg(c.month);
    return text + QStringLiteral("%1日（%2）").arg(c.day).arg(kWeekdays[(c.weekday + 6) % 7]);
}

} // namespace

QString toolbarRangeText(const Date& date, bool month, const DateCalendar& calendar) {
    if (month) {
        const auto c = calendar.components(date);
        return QStringLiteral("%1年%2月").arg(c.year).arg(c.month);
    }
    const auto days = CalendarMath::daysInWeek(date, calendar);
    if (days.empty()) return {};
    const auto first = calendar.components(days.front());
    const auto last = calendar.components(days.back());
    return dayText(first, true, true) + QStringLiteral(" 〜 ") +
           dayText(last, last.year != first.year, last.month != first.month || last.year != first.year);
}

ShellController::ShellController(QObject* parent) : QObject(parent) {}

QObject* ShellController::storeObject() const { return store_.get(); }
QObject* ShellController::sceneObject() const { return scene_.get(); }
QObject* ShellController::cloudObject() const { return cloud_.get(); }

void ShellController::setStoreObject(QObject* object) {
    auto* store = qobject_cast<AppStore*>(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::lastErrorChanged, &AppStore::canRetryChanged}, this, &ShellController::storeMessageChanged);
    emit storeChanged();
    emit storeMessageChanged();
    emit rangeTextChanged();
}

void ShellController::setSceneObject(QObject* object) {
    auto* scene = qobject_cast<SceneState*>(object);
    if (!scene_.follow(scene)) return;
    scene_.on({&SceneState::selectedDateChanged, &SceneState::calendarNavigationChanged}, this, &ShellController::rangeTextChanged);
    scene_.on(&SceneState::navigationChanged, this, &ShellController::navigationChanged);
    emit sceneChanged();
    emit navigationChanged();
    emit rangeTextChanged();
}

void ShellController::setCloudObject(QObject* object) {
    auto* cloud = qobject_cast<AICloudStore*>(object);
    if (!cloud_.follow(cloud)) return;
    cloud_.on(&AICloudStore::errorMessageChanged, this, &ShellController::cloudMessageChanged);
    emit cloudChanged();
    emit cloudMessageChanged();
}

QString ShellController::rangeText() const {
    if (!store_ || !scene_) return {};
    return toolbarRangeText(scene_->selectedDate(), scene_->calendarNavigation() == NavigationItem::month,
                            store_->dateCalendar());
}

QString ShellController::navigation() const { return scene_ ? scene_->navigationName() : QString(); }

bool ShellController::pagingAvailable() const {
    return scene_ && (scene_->navigation() == NavigationItem::week || scene_->navigation() == NavigationItem::month);
}

QString ShellController::storeMessage() const { return store_ ? store_->lastErrorText() : QString(); }
bool ShellController::canRetry() const { return store_ && store_->canRetry(); }

QString ShellController::cloudMessage() const {
    const QString message = cloud_ ? cloud_->errorMessageText() : QString();
    return message == dismissedCloudMessage_ ? QString() : message;
}

void ShellController::navigate(const QString& item) {
    if (!scene_) return;
    if (item == QLatin1String("calendar")) {
        scene_->selectNavigation(scene_->calendarNavigation());
        return;
    }
    const std::string name = item.toStdString();
    NavigationItem parsed{};
    if (fromString(std::string_view(name), parsed)) scene_->selectNavigation(parsed);
}

void ShellController::openSettings(const QString& section) {
    if (!scene_) return;
    const std::string name = section.toStdString();
    SettingsSection parsed{};
    if (fromString(std::string_view(name), parsed)) scene_->setSettingsSection(parsed);
    scene_->selectNavigation(NavigationItem::settings);
    if (scene_->revealMainWindow()) scene_->revealMainWindow()();
}

void ShellController::goToToday() {
    if (scene_) scene_->setSelectedDate(Date::now());
}

void ShellController::page(int by) {
    if (scene_ && store_) scene_->moveSelectedDate(by, store_->dateCalendar());
}

void ShellController::moveSelectedDay(int days) {
    if (!scene_ || !store_) return;
    if (auto moved = store_->dateCalendar().adding(DateCalendar::Unit::day, days, scene_->selectedDate()))
        scene_->setSelectedDate(*moved);
}

void ShellController::newEvent() {
    if (!scene_) return;
    scene_->setPendingEventDraft(std::nullopt);
    scene_->setEditorPresentation(EditorPresentation::create());
}

void ShellController::retry() {
    if (store_) launch(store_->retryLastOperation(), this);
}

void ShellController::dismissStoreMessage() {
    if (store_) store_->clearPersistenceMessage();
}

void ShellController::dismissCloudMessage() {
    if (!cloud_) return;
    dismissedCloudMessage_ = cloud_->errorMessageText();
    emit cloudMessageChanged();
}

} // namespace tavelo::shell
