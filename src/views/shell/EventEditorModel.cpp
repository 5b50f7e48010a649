#include "views/shell/EventEditorModel.h"

#include <algorithm>

#include "stores/AppStore.h"
#include "stores/EventAccessPolicy.h"
#include "stores/SceneState.h"
#include "views/support/RowDiff.h"
#include "views/shell/ShellTasks.h"

#include <QTime>

namespace tavelo::shell {

// --- the calendar choices ------------------------------------------------------

int EditorCalendarChoices::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant EditorCalendarChoices::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const Row& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return row.name;
    case CalendarIDRole: return row.calendarID;
    case ColorRole: return row.color;
    case AccountNameRole: return row.accountName;
    case SelectedRole: return row.selected;
    case ReceivesBusyBlocksRole: return row.receivesBusyBlocks;
    default: return {};
    }
}

QHash<int, QByteArray> EditorCalendarChoices::roleNames() const {
    return {{CalendarIDRole, "calendarID"},   {NameRole, "name"},         {ColorRole, "calendarColor"},
            {AccountNameRole, "accountName"}, {SelectedRole, "selected"}, {ReceivesBusyBlocksRole, "receivesBusyBlocks"}};
}

void EditorCalendarChoices::setRows(std::vector<Row> rows) {
    RowDiff::replaceRows(*this, rows_, std::move(rows), [](const Row& r) { return r.calendarID; });
}

// --- the editor ------------------------------------------------------------------

namespace {

QDate dayOf(Date date, const DateCalendar& calendar) {
    const auto c = calendar.components(date);
    return QDate(c.year, c.month, c.day);
}

QString timeOf(Date date, const DateCalendar& calendar) {
    const auto c = calendar.components(date);
    return QStringLiteral("%1:%2").arg(c.hour, 2, 10, QLatin1Char('0')).arg(c.minute, 2, 10, QLatin1Char('0'));
}

// `date` moved to `day`, keeping its wall-clock time.
std::optional<Date> onDay(Date date, const QDate& day, const DateCalendar& calendar) {
    if (!day.isValid()) return std::nullopt;
    const auto c = calendar.components(date);
    return calendar.date(day.year(), day.month(), day.day(), c.hour, c.minute);
}

// `date` at the wall-clock time "H:mm".
std::optional<Date> atTime(Date date, const QString& text, const DateCalendar& calendar) {
    const QTime time = QTime::fromString(text.trimmed(), QStringLiteral("H:mm"));
    if (!time.isValid()) return std::nullopt;
    const auto c = calendar.components(date);
    return calendar.date(c.year, c.month, c.day, time.hour(), time.minute());
}

} // namespace

EventEditorModel::EventEditorModel(QObject* parent) : QObject(parent), choices_(new EditorCalendarChoices(this)) {
    availabilityTimer_.setSingleShot(true);
    availabilityTimer_.setInterval(150);
    connect(&availabilityTimer_, &QTimer::timeout, this, &EventEditorModel::askAvailability);
    connect(this, &EventEditorModel::draftChanged, this, &EventEditorModel::announceCanSave);
}

EventEditorModel::~EventEditorModel() = default;

QObject* EventEditorModel::storeObject() const { return store_.get(); }
QObject* EventEditorModel::sceneObject() const { return scene_.get(); }

void EventEditorModel::setStoreObject(QObject* object) {
    auto* store = qobject_cast<AppStore*>(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::calendarsChanged, &AppStore::accountsChanged}, this, &EventEditorModel::refreshChoices);
    store_.on(&AppStore::tagsChanged, this, &EventEditorModel::tagChoicesChanged);
    emit storeChanged();
    emit tagChoicesChanged();
    followScene();
}

void EventEditorModel::setSceneObject(QObject* object) {
    auto* scene = qobject_cast<SceneState*>(object);
    if (!scene_.follow(scene)) return;
    scene_.on(&SceneState::editorPresentationChanged, this, &EventEditorModel::followScene);
    emit sceneChanged();
    followScene();
}

void EventEditorModel::followScene() {
    if (!scene_ || !store_) return;
    open(scene_->editorPresentation());
}

std::vector<UUID> EventEditorModel::defaultCalendars() const {
    for (const CalendarSource& calendar : store_->calendars())
        if (calendar.isVisible) return {calendar.id};
    if (!store_->calendars().empty()) return {store_->calendars().front().id};
    return {CalendarSource::tavelo().id};
}

EventDraft EventEditorModel::defaultDraft() const {
    const DateCalendar& calendar = store_->dateCalendar();
    const Date now = Date::now();
    const Date selected = scene_ ? scene_->selectedDate() : now;
    Date start;
    const auto today = calendar.components(now);
    const auto chosen = calendar.components(selected);
    const bool isToday = today.year == chosen.year && today.month == chosen.month && today.day == chosen.day;
    // Today: the next full hour; another day: nine in the morning.
    const int hour = isToday ? std::min(today.hour + 1, 23) : 9;
    start = calendar.date(chosen.year, chosen.month, chosen.day, hour).value_or(selected);
    EventDraft draft;
    draft.start = start;
    draft.end = start.addingSeconds(3600);
    draft.calendarIDs = defaultCalendars();
    return draft;
}

void EventEditorModel::open(const std::optional<EditorPresentation>& presentation) {
    const bool wasOpen = draft_.has_value();
    const bool wasCreate = !editingEventID_;
    if (!presentation || !store_) {
        draft_.reset();
        editingEventID_.reset();
    } else if (presentation->isCreate()) {
        EventDraft draft = scene_ && scene_->pendingEventDraft() ? *scene_->pendingEventDraft() : defaultDraft();
        if (draft.calendarIDs.empty()) draft.calendarIDs = defaultCalendars();
        draft.groupID.reset();
        draft_ = std::move(draft);
        editingEventID_.reset();
    } else {
        // A busy block opens the event it stands for.
        const auto event = EventAccessPolicy::detailEvent(*presentation->editedEventID, store_->events());
        if (!event || event->isGeneratedBusyBlock) {
            draft_.reset();
            editingEventID_.reset();
            store_->recordMessage(QStringLiteral("この予定は編集できません。"));
            if (scene_) scene_->setEditorPresentation(std::nullopt);
        } else {
            std::vector<UUID> calendarIDs;
            for (const CalendarEvent& member : store_->events())
                if (member.groupID == event->groupID && !member.isGeneratedBusyBlock) calendarIDs.push_back(member.calendarID);
            draft_ = EventDraft::fromEvent(*event, std::move(calendarIDs), store_->dateCalendar());
            editingEventID_ = event->id;
        }
    }
    setGuestError(QString());
    refreshChoices();
    if (wasOpen != draft_.has_value() || wasCreate != !editingEventID_) emit isOpenChanged();
    emit draftChanged();
    if (draft_) {
        availabilityTimer_.stop();
        askAvailability();
    }
}

void EventEditorModel::changeDraft(const std::function<void(EventDraft&)>& change) {
    if (!draft_) return;
    EventDraft next = *draft_;
    change(next);
    if (next == *draft_) return;
    const bool calendarsChanged = next.calendarIDs != draft_->calendarIDs;
    const bool timesChanged = next.start != draft_->start || next.end != draft_->end || next.isAllDay != draft_->isAllDay;
    draft_ = std::move(next);
    if (calendarsChanged) refreshChoices();
    emit draftChanged();
    if (calendarsChanged || timesChanged) scheduleAvailability();
}

void EventEditorModel::refreshChoices() {
    std::vector<EditorCalendarChoices::Row> rows;
    if (store_) {
        // The built-in local calendar is always offered; the store adds it to
        // the list when the first event is made on it.
        std::vector<CalendarSource> offered = store_->calendars();
        const CalendarSource& local = CalendarSource::tavelo();
        if (std::none_of(offered.begin(), offered.end(), [&](const CalendarSource& c) { return c.id == local.id; }))
            offered.push_back(local);
        for (const CalendarSource& calendar : offered) {
            QString accountName = QStringLiteral("このコンピューター");
            for (const Account& account : store_->accounts())
                if (calendar.accountID == account.id) accountName = account.email.isEmpty() ? account.name : account.email;
            const bool selected = draft_ && std::find(draft_->calendarIDs.begin(), draft_->calendarIDs.end(),
                                                      calendar.id) != draft_->calendarIDs.end();
            rows.push_back({calendar.id.toString(), calendar.name, calendar.colorHex, accountName, selected,
                            calendar.receivesBusyBlocks});
        }
    }
    choices_->setRows(std::move(rows));
}

QString EventEditorModel::title() const { return draft_ ? draft_->title : QString(); }
void EventEditorModel::setTitle(const QString& value) {
    changeDraft([&](EventDraft& d) { d.title = value; });
}

bool EventEditorModel::isAllDay() const { return draft_ && draft_->isAllDay; }
void EventEditorModel::setAllDay(bool value) {
    if (!store_) return;
    const DateCalendar& calendar = store_->dateCalendar();
    changeDraft([&](EventDraft& d) {
        if (d.isAllDay == value) return;
        d.isAllDay = value;
        if (value) {
            d.start = calendar.startOfDay(d.start);
            d.end = std::max(d.start, calendar.startOfDay(d.end));
        } else {
            const auto c = calendar.components(d.start);
            d.start = calendar.date(c.year, c.month, c.day, 9).value_or(d.start);
            d.end = d.start.addingSeconds(3600);
        }
    });
}

QDate EventEditorModel::startDay() const {
    return draft_ && store_ ? dayOf(draft_->start, store_->dateCalendar()) : QDate();
}

void EventEditorModel::setStartDay(const QDate& day) {
    if (!store_) return;
    const DateCalendar& calendar = store_->dateCalendar();
    changeDraft([&](EventDraft& d) {
        const auto start = onDay(d.start, day, calendar);
        if (!start) return;
        // The event keeps its length.
        const auto shift = calendar.difference(DateCalendar::Unit::day, calendar.startOfDay(d.start),
                                               calendar.startOfDay(*start));
        if (d.isAllDay && shift) d.end = calendar.adding(DateCalendar::Unit::day, *shift, d.end).value_or(d.end);
        else d.end = start->addingSeconds(d.end.secondsSince(d.start));
        d.start = *start;
    });
}

QString EventEditorModel::startTime() const {
    return draft_ && store_ ? timeOf(draft_->start, store_->dateCalendar()) : QString();
}

void EventEditorModel::setStartTime(const QString& time) {
    if (!store_) return;
    changeDraft([&](EventDraft& d) {
        const auto start = atTime(d.start, time, store_->dateCalendar());
        if (!start) return;
        d.end = start->addingSeconds(d.end.secondsSince(d.start));
        d.start = *start;
    });
}

QDate EventEditorModel::endDay() const {
    return draft_ && store_ ? dayOf(draft_->end, store_->dateCalendar()) : QDate();
}

void EventEditorModel::setEndDay(const QDate& day) {
    if (!store_) return;
    changeDraft([&](EventDraft& d) {
        if (const auto end = onDay(d.end, day, store_->dateCalendar())) d.end = *end;
    });
}

QString EventEditorModel::endTime() const {
    return draft_ && store_ ? timeOf(draft_->end, store_->dateCalendar()) : QString();
}

void EventEditorModel::setEndTime(const QString& time) {
    if (!store_) return;
    changeDraft([&](EventDraft& d) {
        if (const auto end = atTime(d.end, time, store_->dateCalendar())) d.end = *end;
    });
}

QString EventEditorModel::location() const { return draft_ ? draft_->location : QString(); }
void EventEditorModel::setLocation(const QString& value) {
    changeDraft([&](EventDraft& d) { d.location = value; });
}

QString EventEditorModel::notes() const { return draft_ ? draft_->notes : QString(); }
void EventEditorModel::setNotes(const QString& value) {
    changeDraft([&](EventDraft& d) { d.notes = value; });
}

QString EventEditorModel::recurrence() const {
    return draft_ && draft_->recurrence ? QString::fromLatin1(toString(*draft_->recurrence).data()) : QString();
}

void EventEditorModel::setRecurrence(const QString& value) {
    changeDraft([&](EventDraft& d) {
        const std::string name = value.toStdString();
        EventRecurrence parsed{};
        if (fromString(std::string_view(name), parsed)) d.recurrence = parsed;
        else d.recurrence.reset();
    });
}

QString EventEditorModel::tagID() const { return draft_ && draft_->tagID ? draft_->tagID->toString() : QString(); }
void EventEditorModel::setTagID(const QString& value) {
    changeDraft([&](EventDraft& d) { d.tagID = UUID::fromString(value); });
}

QVariantList EventEditorModel::tagChoices() const {
    QVariantList list;
    if (!store_) return list;
    for (const Tag& tag : store_->tags())
        list.push_back(QVariantMap{{QStringLiteral("tagID"), tag.id.toString()},
                                   {QStringLiteral("name"), tag.name},
                                   {QStringLiteral("color"), tag.colorHex}});
    return list;
}

QStringList EventEditorModel::guests() const {
    QStringList list;
    if (draft_)
        for (const Guest& guest : draft_->guests) list.push_back(guest.email);
    return list;
}

bool EventEditorModel::addGuest(const QString& email) {
    if (!draft_) return false;
    const QString address = email.trimmed();
    if (!isValidGuestEmail(address)) {
        setGuestError(QStringLiteral("「%1」はメールアドレスとして使えません。").arg(address));
        return false;
    }
    for (const Guest& guest : draft_->guests) {
        if (guest.email.compare(address, Qt::CaseInsensitive) == 0) {
            setGuestError(QStringLiteral("%1 はすでに招待されています。").arg(address));
            return false;
        }
    }
    setGuestError(QString());
    changeDraft([&](EventDraft& d) { d.guests.push_back(Guest{UUID::random(), QString(), address, GuestStatus::pending}); });
    return true;
}

void EventEditorModel::removeGuest(int index) {
    changeDraft([&](EventDraft& d) {
        if (index >= 0 && index < static_cast<int>(d.guests.size())) d.guests.erase(d.guests.begin() + index);
    });
}

QVariantList EventEditorModel::notifications() const {
    QVariantList list;
    if (draft_)
        for (int minutes : draft_->notifications) list.push_back(minutes);
    return list;
}

void EventEditorModel::addNotification(int minutesBefore) {
    if (minutesBefore < 0) return;
    changeDraft([&](EventDraft& d) {
        if (std::find(d.notifications.begin(), d.notifications.end(), minutesBefore) != d.notifications.end()) return;
        d.notifications.push_back(minutesBefore);
        std::sort(d.notifications.begin(), d.notifications.end());
    });
}

void EventEditorModel::removeNotification(int index) {
    changeDraft([&](EventDraft& d) {
        if (index >= 0 && index < static_cast<int>(d.notifications.size()))
            d.notifications.erase(d.notifications.begin() + index);
    });
}

bool EventEditorModel::offersMeet() const {
    if (!draft_ || !store_) return false;
    for (const CalendarSource& calendar : store_->calendars())
        if (calendar.googleCalendarID &&
            std::find(draft_->calendarIDs.begin(), draft_->calendarIDs.end(), calendar.id) != draft_->calendarIDs.end())
            return true;
    return false;
}

bool EventEditorModel::requestsMeet() const { return draft_ && draft_->meetURL.has_value(); }

void EventEditorModel::setRequestsMeet(bool value) {
    changeDraft([&](EventDraft& d) {
        if (value && !d.meetURL) d.meetURL = CalendarEvent::pendingMeetURL();
        if (!value) d.meetURL.reset();
    });
}

void EventEditorModel::toggleCalendar(int row) {
    const auto& rows = choices_->rows();
    if (row < 0 || row >= static_cast<int>(rows.size())) return;
    const auto id = UUID::fromString(rows[static_cast<std::size_t>(row)].calendarID);
    if (!id) return;
    changeDraft([&](EventDraft& d) {
        auto found = std::find(d.calendarIDs.begin(), d.calendarIDs.end(), *id);
        if (found != d.calendarIDs.end()) d.calendarIDs.erase(found);
        else d.calendarIDs.push_back(*id);
    });
}

QString EventEditorModel::validationMessage() const {
    if (!draft_ || !store_) return {};
    return store_->eventValidationMessage(*draft_).value_or(QString());
}

bool EventEditorModel::canSave() const { return draft_ && store_ && !isSaving_ && validationMessage().isEmpty(); }

void EventEditorModel::announceCanSave() {
    const bool now = canSave();
    if (now == lastCanSave_) return;
    lastCanSave_ = now;
    emit canSaveChanged();
}

void EventEditorModel::save() {
    if (!canSave()) return;
    setSaving(true);
    const EventDraft draft = *draft_;
    const std::optional<UUID> editing = editingEventID_;
    launch(store_->saveEvent(draft, editing), this, [this](bool saved) {
        setSaving(false);
        emit saveFinished(saved);
        if (saved) cancel();
    }, [this](std::exception_ptr) {
        setSaving(false);
        emit saveFinished(false);
    });
}

void EventEditorModel::cancel() {
    if (scene_) {
        scene_->setPendingEventDraft(std::nullopt);
        scene_->setEditorPresentation(std::nullopt);
    }
    if (draft_) open(std::nullopt);
}

void EventEditorModel::scheduleAvailability() {
    if (!availabilityLoading_) {
        availabilityLoading_ = true;
        availabilityText_ = EventAvailabilityState::loading().text();
        emit availabilityChanged();
    }
    availabilityTimer_.start();
}

void EventEditorModel::askAvailability() {
    if (!draft_ || !store_) return;
    const int question = ++availabilityQuestion_;
    availabilityLoading_ = true;
    availabilityText_ = EventAvailabilityState::loading().text();
    emit availabilityChanged();
    const EventDraft draft = *draft_;
    const DateCalendar calendar = store_->dateCalendar();
    launch(store_->eventAvailability(draft, calendar), this, [this, question](EventAvailabilityState state) {
        // Only the answer to the latest question is shown.
        if (question != availabilityQuestion_ || state.isLoading()) return;
        availabilityLoading_ = false;
        availabilityText_ = state.text();
        availabilityRows_.clear();
        if (const auto* assessment = state.assessment()) {
            for (const AccountAvailability& row : assessment->accounts) {
                QString name;
                for (const Account& account : store_->accounts())
                    if (account.id == row.accountID) name = account.email.isEmpty() ? account.name : account.email;
                availabilityRows_.push_back(QVariantMap{{QStringLiteral("accountName"), name},
                                                        {QStringLiteral("isAvailable"), row.isAvailable}});
            }
        }
        emit availabilityChanged();
    });
}

void EventEditorModel::setSaving(bool value) {
    if (isSaving_ == value) return;
    isSaving_ = value;
    emit isSavingChanged();
    announceCanSave();
}

void EventEditorModel::setGuestError(const QString& text) {
    if (guestError_ == text) return;
    guestError_ = text;
    emit guestErrorChanged();
}

} // namespace tavelo::shell
