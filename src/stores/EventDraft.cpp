#include "stores/EventDraft.h"

#include "models/AppSnapshot.h"

#include <QHash>

#include <algorithm>

namespace tavelo {

namespace {

const QString& blankTitleMessage() {
    static const QString text = QStringLiteral("タイトルを入力してください");
    return text;
}
const QString& invalidDateRangeMessage() {
    static const QString text = QStringLiteral("終了時刻は開始時刻より後にしてください");
    return text;
}
const QString& noCalendarsMessage() {
    static const QString text = QStringLiteral("作成先カレンダーを選択してください");
    return text;
}
const QString& invalidGuestMessage() {
    static const QString text = QStringLiteral("Googleカレンダーの参加者には有効なメールアドレスを入力してください");
    return text;
}

bool onlyUses(QStringView text, QStringView allowed) {
    return std::all_of(text.begin(), text.end(), [&](QChar c) { return allowed.contains(c); });
}

bool isValidLocalPart(QStringView local) {
    static const QString allowed =
        QStringLiteral("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.!#$%&'*+-/=?^_`{|}~");
    if (local.isEmpty() || !onlyUses(local, allowed)) return false;
    if (local.startsWith(u'.') || local.endsWith(u'.')) return false;
    return !local.contains(u"..");
}

// Host-name rules: at least two labels, each 1 to 63 letters, digits or
// hyphens, not starting or ending with a hyphen; 253 characters at most.
bool isValidDomain(QStringView domain) {
    static const QString allowed =
        QStringLiteral("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-");
    if (domain.isEmpty() || domain.size() > 253) return false;
    const auto labels = domain.split(u'.');
    if (labels.size() < 2) return false;
    return std::all_of(labels.begin(), labels.end(), [](QStringView label) {
        return !label.isEmpty() && label.size() <= 63 && onlyUses(label, allowed) && !label.startsWith(u'-') &&
               !label.endsWith(u'-');
    });
}

template <class T>
void combine(std::size_t& seed, const T& value) {
    seed ^= std::hash<T>{}(value) + 0x9E3779B97F4A7C15ULL + (seed << 6) + (seed >> 2);
}
void combineText(std::size_t& seed, const QString& text) { combine(seed, static_cast<std::size_t>(qHash(text))); }

} // namespace

namespace {

// The fields an event and a draft share, under the same names: the one list
// both directions copy, so a field added to both cannot be forgotten in one.
template <class From, class To>
void copySharedFields(const From& from, To& to) {
    to.kind = from.kind;
    to.title = from.title;
    to.start = from.start;
    to.end = from.end;
    to.isAllDay = from.isAllDay;
    to.recurrence = from.recurrence;
    to.tagID = from.tagID;
    to.location = from.location;
    to.notes = from.notes;
    to.guests = from.guests;
    to.notifications = from.notifications;
    to.meetURL = from.meetURL;
    to.availability = from.availability;
    to.visibility = from.visibility;
    to.isCompleted = from.isCompleted;
    to.externalUID = from.externalUID;
}

} // namespace

EventDraft EventDraft::fromEvent(const CalendarEvent& event, std::vector<UUID> calendarIDs, const DateCalendar& calendar) {
    EventDraft draft;
    copySharedFields(event, draft);
    draft.groupID = event.groupID;
    draft.calendarIDs = std::move(calendarIDs);
    if (event.isAllDay && event.end > event.start) {
        const auto lastDay = calendar.adding(DateCalendar::Unit::day, -1, event.end);
        draft.end = lastDay ? *lastDay : event.end.addingSeconds(-1);
    }
    return draft;
}

void EventDraft::applyTo(CalendarEvent& event) const { copySharedFields(*this, event); }

EventDraft EventDraft::normalizedForMutation(const DateCalendar& calendar) const {
    if (!isAllDay) return *this;
    EventDraft draft = *this;
    draft.start = calendar.startOfDay(start);
    const Date lastDay = calendar.startOfDay(end);
    draft.end = calendar.adding(DateCalendar::Unit::day, 1, lastDay).value_or(lastDay);
    return draft;
}

std::optional<QString> EventDraft::validationMessage(const std::set<UUID>& providerCalendarIDs,
                                                     const DateCalendar& calendar) const {
    const EventDraft draft = normalizedForMutation(calendar);
    const bool onlyLocalCalendar =
        draft.calendarIDs.size() == 1 && draft.calendarIDs.front() == CalendarSource::tavelo().id;
    if (draft.title.trimmed().isEmpty() && !onlyLocalCalendar) return blankTitleMessage();
    if (!(draft.end > draft.start)) return invalidDateRangeMessage();
    if (draft.calendarIDs.empty()) return noCalendarsMessage();
    const bool reachesProvider = std::any_of(draft.calendarIDs.begin(), draft.calendarIDs.end(),
                                             [&](const UUID& id) { return providerCalendarIDs.contains(id); });
    if (reachesProvider && std::any_of(draft.guests.begin(), draft.guests.end(),
                                       [](const Guest& guest) { return !isValidGuestEmail(guest.email); }))
        return invalidGuestMessage();
    return std::nullopt;
}

bool isValidGuestEmail(const QString& address) {
    const QString trimmed = address.trimmed();
    if (std::any_of(trimmed.begin(), trimmed.end(), [](QChar c) { return c.isSpace(); })) return false;
    const auto parts = QStringView(trimmed).split(u'@');
    if (parts.size() != 2) return false;
    return isValidLocalPart(parts[0]) && isValidDomain(parts[1]);
}

QString EventValidationError::message() const {
    switch (kind_) {
    case Kind::blankTitle: return blankTitleMessage();
    case Kind::invalidDateRange: return invalidDateRangeMessage();
    case Kind::noCalendars: return noCalendarsMessage();
    }
    return {};
}

} // namespace tavelo

std::size_t std::hash<tavelo::EventDraft>::operator()(const tavelo::EventDraft& draft) const noexcept {
    using namespace tavelo;
    std::size_t seed = 0;
    combine(seed, draft.groupID.value_or(UUID()));
    combine(seed, static_cast<int>(draft.kind));
    combineText(seed, draft.title);
    combine(seed, draft.start);
    combine(seed, draft.end);
    combine(seed, draft.isAllDay);
    combine(seed, draft.recurrence ? static_cast<int>(*draft.recurrence) : -1);
    for (const auto& id : draft.calendarIDs) combine(seed, id);
    combine(seed, draft.tagID.value_or(UUID()));
    combineText(seed, draft.location);
    combineText(seed, draft.notes);
    for (const auto& guest : draft.guests) {
        combine(seed, guest.id);
        combineText(seed, guest.name);
        combineText(seed, guest.email);
        combine(seed, static_cast<int>(guest.status));
    }
    for (int minutes : draft.notifications) combine(seed, minutes);
    combine(seed, draft.meetURL ? static_cast<std::size_t>(qHash(*draft.meetURL)) : std::size_t{0});
    combine(seed, static_cast<int>(draft.availability));
    combine(seed, static_cast<int>(draft.visibility));
    combine(seed, draft.isCompleted);
    combineText(seed, draft.externalUID.value_or(QString()));
    return seed;
}
