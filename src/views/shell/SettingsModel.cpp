#include "views/shell/SettingsModel.h"

#include "ai/AICloudStore.h"
#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "support/DateCalendar.h"
#include "views/support/RowDiff.h"
#include "views/shell/ShellTasks.h"

#include <QTime>

namespace tavelo::shell {

namespace {

QString recurrenceText(const std::optional<EventRecurrence>& recurrence) {
    if (!recurrence) return QStringLiteral("1回のみ");
    switch (*recurrence) {
    case EventRecurrence::daily: return QStringLiteral("毎日");
    case EventRecurrence::weekly: return QStringLiteral("毎週");
    case EventRecurrence::monthly: return QStringLiteral("毎月");
    }
    return {};
}

QString dateTimeText(Date date, const DateCalendar& calendar) {
    const auto c = calendar.components(date);
    return QStringLiteral("%1年%2月%3日 %4:%5")
        .arg(c.year)
        .arg(c.month)
        .arg(c.day)
        .arg(c.hour)
        .arg(c.minute, 2, 10, QLatin1Char('0'));
}

DateCalendar scheduleCalendar(const AISchedule& schedule) {
    return DateCalendar(schedule.timeZoneID, QStringLiteral("ja_JP"));
}

} // namespace

// --- the schedule list --------------------------------------------------------------

int AIScheduleListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant AIScheduleListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const Row& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case TitleRole: return row.title;
    case ScheduleIDRole: return row.scheduleID;
    case StatusRole: return row.status;
    case NextRunRole: return row.nextRun;
    case RecurrenceRole: return row.recurrence;
    case PausedRole: return row.paused;
    default: return {};
    }
}

QHash<int, QByteArray> AIScheduleListModel::roleNames() const {
    return {{ScheduleIDRole, "scheduleID"}, {TitleRole, "title"},           {StatusRole, "status"},
            {NextRunRole, "nextRun"},       {RecurrenceRole, "recurrence"}, {PausedRole, "paused"}};
}

void AIScheduleListModel::setRows(std::vector<Row> rows) {
    RowDiff::replaceRows(*this, rows_, std::move(rows), [](const Row& r) { return r.scheduleID; });
}

// --- the settings -----------------------------------------------------------------------

SettingsModel::SettingsModel(QObject* parent) : QObject(parent), schedules_(new AIScheduleListModel(this)) {}

QObject* SettingsModel::storeObject() const { return store_.get(); }
QObject* SettingsModel::cloudObject() const { return cloud_.get(); }

void SettingsModel::setStoreObject(QObject* object) {
    auto* store = qobject_cast<AppStore*>(object);
    if (!store_.follow(store)) return;
    emit storeChanged();
}

void SettingsModel::setCloudObject(QObject* object) {
    auto* cloud = qobject_cast<AICloudStore*>(object);
    if (!cloud_.follow(cloud)) return;
    cloud_.on({&AICloudStore::taveloEmailChanged, &AICloudStore::endpointChanged, &AICloudStore::accountChanged}, this,
              &SettingsModel::accountChanged);
    cloud_.on(&AICloudStore::stateChanged, this, &SettingsModel::refreshScheduleRows);
    refreshScheduleRows();
    emit cloudChanged();
    emit accountChanged();
}

QString SettingsModel::accountText() const {
    if (!cloud_ || !cloud_->hasSession()) return QStringLiteral("ログインしていません");
    if (cloud_->taveloEmail()) return *cloud_->taveloEmail();
    return cloud_->endpoint() == cloud_->hostedEndpoint() ? QStringLiteral("Tavelo AI Cloud")
                                                          : QStringLiteral("プライベートサーバー");
}

QString SettingsModel::endpoint() const { return cloud_ ? cloud_->endpoint() : QString(); }

bool SettingsModel::isChatGPTConnected() const { return cloud_ && cloud_->isChatGPTConnected(); }

QString SettingsModel::chatGPTAccountText() const {
    if (!cloud_ || !cloud_->account() || !cloud_->account()->connected) return QStringLiteral("未連携");
    const auto& account = *cloud_->account();
    QString text = account.email.value_or(QStringLiteral("連携済み"));
    if (account.plan) text += QStringLiteral("（%1）").arg(*account.plan);
    return text;
}

template <class T, class Done>
void SettingsModel::run(QCoro::Task<T>&& task, Done done) {
    if (isBusy_) return;
    setErrorText(QString());
    setBusy(true);
    launch(std::move(task), this, [this, done = std::move(done)](auto&&... value) {
        setBusy(false);
        done(std::forward<decltype(value)>(value)...);
    }, [this](std::exception_ptr failure) {
        setBusy(false);
        if (!isCancellation(failure)) setErrorText(localizedDescription(failure));
    });
}

void SettingsModel::selectSection(QObject* scene, const QString& section) {
    auto* state = qobject_cast<SceneState*>(scene);
    if (!state) return;
    const std::string name = section.toStdString();
    SettingsSection parsed{};
    if (fromString(std::string_view(name), parsed)) state->setSettingsSection(parsed);
}

void SettingsModel::signOut() {
    if (cloud_) run(cloud_->signOut(), [] {});
}

void SettingsModel::startChatGPTLogin() {
    if (!cloud_) return;
    login_.reset();
    emit loginChanged();
    run(cloud_->login(), [this](AILogin login) {
        login_ = std::move(login);
        emit loginChanged();
    });
}

void SettingsModel::unlinkChatGPT() {
    if (!cloud_) return;
    run(cloud_->logout(), [this] {
        login_.reset();
        emit loginChanged();
    });
}

void SettingsModel::refreshSchedules() {
    if (cloud_ && cloud_->hasSession()) launch(cloud_->refresh(), this);
}

void SettingsModel::refreshScheduleRows() {
    std::vector<AIScheduleListModel::Row> rows;
    if (cloud_) {
        const Date now = Date::now();
        const DateCalendar calendar = DateCalendar::current();
        for (const AISchedule& schedule : cloud_->state().schedules) {
            const auto run = cloud_->latestRun(schedule.id);
            const auto next = schedule.occurrences(DateInterval{now, now.addingSeconds(400.0 * 86400)});
            QString nextText = schedule.isPaused ? QStringLiteral("一時停止中")
                               : next.empty()   ? QStringLiteral("予定なし")
                                                : dateTimeText(next.front(), calendar);
            rows.push_back({schedule.id.toString(), schedule.title,
                             run ? run->statusLabel() : QString::fromUtf8(AIScheduleTexts::notRunYet), nextText,
                             recurrenceText(schedule.recurrence), schedule.isPaused});
        }
    }
    schedules_->setRows(std::move(rows));
}

std::optional<UUID> SettingsModel::scheduleIDAt(int row) const {
    const auto& rows = schedules_->rows();
    if (row < 0 || row >= static_cast<int>(rows.size())) return std::nullopt;
    return UUID::fromString(rows[static_cast<std::size_t>(row)].scheduleID);
}

void SettingsModel::newSchedule() {
    const DateCalendar calendar = DateCalendar::current();
    const auto c = calendar.components(Date::now().addingSeconds(86400));
    AISchedule schedule;
    schedule.id = UUID::random();
    schedule.timeZoneID = calendar.timeZoneID();
    schedule.firstRun = calendar.date(c.year, c.month, c.day, 9).value_or(Date::now());
    scheduleDraft_ = std::move(schedule);
    emit scheduleDraftChanged();
}

void SettingsModel::editSchedule(int row) {
    const auto id = scheduleIDAt(row);
    if (!id || !cloud_) return;
    for (const AISchedule& schedule : cloud_->state().schedules) {
        if (schedule.id != *id) continue;
        scheduleDraft_ = schedule;
        emit scheduleDraftChanged();
        return;
    }
}

void SettingsModel::cancelScheduleEdit() {
    if (!scheduleDraft_) return;
    scheduleDraft_.reset();
    emit scheduleDraftChanged();
}

void SettingsModel::changeSchedule(const std::function<void(AISchedule&)>& change) {
    if (!scheduleDraft_) return;
    AISchedule next = *scheduleDraft_;
    change(next);
    if (next == *scheduleDraft_) return;
    scheduleDraft_ = std::move(next);
    emit scheduleDraftChanged();
}

QString SettingsModel::scheduleTitle() const { return scheduleDraft_ ? scheduleDraft_->title : QString(); }
void SettingsModel::setScheduleTitle(const QString& value) {
    changeSchedule([&](AISchedule& s) { s.title = value; });
}
QString SettingsModel::schedulePrompt() const { return scheduleDraft_ ? scheduleDraft_->prompt : QString(); }
void SettingsModel::setSchedulePrompt(const QString& value) {
    changeSchedule([&](AISchedule& s) { s.prompt = value; });
}

QDate SettingsModel::scheduleDay() const {
    if (!scheduleDraft_) return {};
    const auto c = scheduleCalendar(*scheduleDraft_).components(scheduleDraft_->firstRun);
    return QDate(c.year, c.month, c.day);
}

void SettingsModel::setScheduleDay(const QDate& day) {
    changeSchedule([&](AISchedule& s) {
        const DateCalendar calendar = scheduleCalendar(s);
        const auto c = calendar.components(s.firstRun);
        if (const auto moved = calendar.date(day.year(), day.month(), day.day(), c.hour, c.minute)) s.firstRun = *moved;
    });
}

QString SettingsModel::scheduleTime() const {
    if (!scheduleDraft_) return {};
    const auto c = scheduleCalendar(*scheduleDraft_).components(scheduleDraft_->firstRun);
    return QStringLiteral("%1:%2").arg(c.hour, 2, 10, QLatin1Char('0')).arg(c.minute, 2, 10, QLatin1Char('0'));
}

void SettingsModel::setScheduleTime(const QString& text) {
    const QTime time = QTime::fromString(text.trimmed(), QStringLiteral("H:mm"));
    if (!time.isValid()) return;
    changeSchedule([&](AISchedule& s) {
        const DateCalendar calendar = scheduleCalendar(s);
        const auto c = calendar.components(s.firstRun);
        if (const auto moved = calendar.date(c.year, c.month, c.day, time.hour(), time.minute())) s.firstRun = *moved;
    });
}

QString SettingsModel::scheduleRecurrence() const {
    return scheduleDraft_ && scheduleDraft_->recurrence
               ? QString::fromLatin1(toString(*scheduleDraft_->recurrence).data())
               : QString();
}

void SettingsModel::setScheduleRecurrence(const QString& value) {
    changeSchedule([&](AISchedule& s) {
        const std::string name = value.toStdString();
        EventRecurrence parsed{};
        if (fromString(std::string_view(name), parsed)) s.recurrence = parsed;
        else s.recurrence.reset();
    });
}

bool SettingsModel::schedulePaused() const { return scheduleDraft_ && scheduleDraft_->isPaused; }
void SettingsModel::setSchedulePaused(bool value) {
    changeSchedule([&](AISchedule& s) { s.isPaused = value; });
}

QString SettingsModel::scheduleValidationMessage() const {
    if (!scheduleDraft_) return {};
    if (const auto message = scheduleDraft_->validationMessage()) return *message;
    if (!cloud_ || !cloud_->hasSession()) return QString::fromUtf8(AIScheduleTexts::saveNeedsConnection);
    return {};
}

QStringList SettingsModel::scheduleNextOccurrences() const {
    QStringList list;
    if (!scheduleDraft_) return list;
    const Date now = Date::now();
    const DateCalendar calendar = DateCalendar::current();
    const auto dates = scheduleDraft_->occurrences(DateInterval{now, now.addingSeconds(400.0 * 86400)});
    for (std::size_t i = 0; i < dates.size() && i < 5; ++i) list.push_back(dateTimeText(dates[i], calendar));
    return list;
}

void SettingsModel::saveSchedule() {
    if (!scheduleDraft_ || !cloud_ || !scheduleValidationMessage().isEmpty()) return;
    AISchedule schedule = *scheduleDraft_;
    run(cloud_->save(std::move(schedule)), [this] {
        scheduleDraft_.reset();
        emit scheduleDraftChanged();
    });
}

void SettingsModel::runScheduleNow(int row) {
    if (const auto id = scheduleIDAt(row); id && cloud_) run(cloud_->runNow(*id), [] {});
}

void SettingsModel::deleteSchedule(int row) {
    if (const auto id = scheduleIDAt(row); id && cloud_) run(cloud_->deleteSchedule(*id), [] {});
}

void SettingsModel::setBusy(bool value) {
    if (isBusy_ == value) return;
    isBusy_ = value;
    emit isBusyChanged();
}

void SettingsModel::setErrorText(const QString& text) {
    if (errorText_ == text) return;
    errorText_ = text;
    emit errorTextChanged();
}

} // namespace tavelo::shell
