#include "views/calendar/ReportModel.h"

#include "stores/AppStore.h"
#include "stores/EventDerivations.h"
#include "support/CalendarMath.h"
#include "views/calendar/CalendarViewSupport.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>
#include <unordered_set>

namespace tavelo {

namespace Support = CalendarViewSupport;

namespace {

QString rangeTextOf(DateInterval interval, const DateCalendar& calendar) {
    const auto first = calendar.components(interval.start);
    const auto last = calendar.components(interval.end.addingSeconds(-1));
    return QStringLiteral("%1/%2/%3 – %4/%5/%6")
        .arg(first.year).arg(first.month).arg(first.day).arg(last.year).arg(last.month).arg(last.day);
}

} // namespace

ReportModel::ReportModel(QObject* parent) : RowListModel(parent) {}
ReportModel::~ReportModel() = default;

int ReportModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : static_cast<int>(rows_.size()); }

QVariant ReportModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const ReportRow& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return row.name;
    case IdRole: return row.id;
    case ColorRole: return row.colorHex;
    case MinutesRole: return row.minutes;
    case PreviousMinutesRole: return row.previousMinutes;
    case TargetMinutesRole: return row.targetMinutes;
    case IsOverTargetRole: return row.isOverTarget;
    case MinutesTextRole: return durationText(row.minutes);
    case PreviousMinutesTextRole: return durationText(row.previousMinutes);
    case TargetTextRole: return row.targetMinutes < 0 ? QStringLiteral("—") : durationText(row.targetMinutes);
    case ProgressTextRole:
        return row.targetMinutes > 0 ? QStringLiteral("%1%").arg(std::lround(row.minutes * 100.0 / row.targetMinutes))
                                     : QStringLiteral("—");
    default: return {};
    }
}

QHash<int, QByteArray> ReportModel::roleNames() const {
    return {{IdRole, "tagId"},
            {NameRole, "name"},
            {ColorRole, "colorHex"},
            {MinutesRole, "minutes"},
            {PreviousMinutesRole, "previousMinutes"},
            {TargetMinutesRole, "targetMinutes"},
            {IsOverTargetRole, "isOverTarget"},
            {MinutesTextRole, "minutesText"},
            {PreviousMinutesTextRole, "previousMinutesText"},
            {TargetTextRole, "targetText"},
            {ProgressTextRole, "progressText"}};
}

QString ReportModel::durationText(int minutes) {
    const int hours = minutes / 60;
    const int rest = minutes % 60;
    if (hours == 0) return QStringLiteral("%1分").arg(rest);
    if (rest == 0) return QStringLiteral("%1時間").arg(hours);
    return QStringLiteral("%1時間%2分").arg(hours).arg(rest);
}

QObject* ReportModel::store() const { return store_; }

void ReportModel::setStore(QObject* object) {
    AppStore* store = Support::appStore(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::eventsChanged, &AppStore::calendarsChanged, &AppStore::tagsChanged}, this, &ReportModel::rebuild);
    emit storeChanged();
    rebuild();
}

void ReportModel::setPeriod(const QString& period) {
    const QString value = period == QLatin1String("month") ? QStringLiteral("month") : QStringLiteral("week");
    if (value == period_) return;
    period_ = value;
    emit periodChanged();
    rebuild();
}

void ReportModel::setReferenceDate(Date date) {
    referenceDate_ = date;
    rebuild();
}

void ReportModel::movePeriod(int by) {
    if (!store_) return;
    const Date reference = referenceDate_.value_or(Date::now());
    const auto unit = period_ == QLatin1String("month") ? DateCalendar::Unit::month : DateCalendar::Unit::weekOfYear;
    if (const auto moved = store_->dateCalendar().adding(unit, by, reference)) setReferenceDate(*moved);
}

void ReportModel::showCurrentPeriod() {
    referenceDate_.reset();
    rebuild();
}

void ReportModel::rebuild() {
    std::vector<ReportRow> rows;
    QString range, previousRange, change;
    int total = 0, previousTotal = 0, focus = 0, scale = 60;
    if (store_) {
        const DateCalendar& calendar = store_->dateCalendar();
        const Date reference = referenceDate_.value_or(Date::now());
        std::optional<DateInterval> interval;
        int days = 7;
        if (period_ == QLatin1String("month")) {
            interval = calendar.interval(DateCalendar::Unit::month, reference);
            if (interval) days = calendar.difference(DateCalendar::Unit::day, interval->start, interval->end).value_or(30);
        } else {
            const auto week = CalendarMath::daysInWeek(reference, calendar);
            if (!week.empty())
                if (const auto end = calendar.adding(DateCalendar::Unit::day, 7, week.front()))
                    interval = DateInterval{week.front(), *end};
        }
        if (interval) {
            std::unordered_set<UUID> visible;
            for (const CalendarSource& source : store_->calendars())
                if (source.isVisible) visible.insert(source.id);
            const DateInterval previous = EventDerivations::previousReportInterval(*interval, calendar);
            std::vector<CalendarEvent> events;
            for (const CalendarEvent& event : store_->events())
                if (visible.contains(event.calendarID) && event.start < interval->end && event.end > previous.start)
                    events.push_back(event);
            const std::vector<Tag>& tags = store_->tags();
            const TimeReport current = EventDerivations::report(events, *interval, tags, calendar);
            const TimeReport before = EventDerivations::report(events, previous, tags, calendar);
            total = current.totalMinutes;
            previousTotal = before.totalMinutes;
            focus = current.focusMinutes;
            range = rangeTextOf(*interval, calendar);
            previousRange = rangeTextOf(previous, calendar);
            if (current.changeFromPrevious)
                change = QStringLiteral("前期間比 %1%2%").arg(*current.changeFromPrevious >= 0 ? "+" : "").arg(std::lround(*current.changeFromPrevious));

            std::unordered_map<QString, int> currentByID, previousByID;
            for (const TagTotal& t : current.tagTotals) currentByID[t.id()] = t.minutes;
            for (const TagTotal& t : before.tagTotals) previousByID[t.id()] = t.minutes;
            std::vector<Tag> ordered = tags;
            std::stable_sort(ordered.begin(), ordered.end(), [](const Tag& a, const Tag& b) { return a.sortOrder < b.sortOrder; });
            for (const Tag& tag : ordered) {
                ReportRow row;
                row.id = tag.id.toString();
                row.name = tag.name;
                row.colorHex = tag.colorHex;
                row.minutes = currentByID[row.id];
                row.previousMinutes = previousByID[row.id];
                if (tag.weeklyTargetMinutes)
                    row.targetMinutes = static_cast<int>(std::lround(*tag.weeklyTargetMinutes * days / 7.0));
                row.isOverTarget = row.targetMinutes >= 0 && row.minutes > row.targetMinutes;
                rows.push_back(std::move(row));
            }
            const QString untagged = QStringLiteral("untagged");
            if (currentByID[untagged] > 0 || previousByID[untagged] > 0)
                rows.push_back({untagged, QStringLiteral("タグなし"), QStringLiteral("#9E9E9E"), currentByID[untagged],
                                previousByID[untagged], -1, false});
            for (const ReportRow& row : rows) scale = std::max({scale, row.minutes, row.previousMinutes, row.targetMinutes});
        }
    }
    replaceRows(rows_, std::move(rows), [](const ReportRow& row) { return row.id; });
    if (range != rangeText_ || previousRange != previousRangeText_ || total != totalMinutes_ ||
        previousTotal != previousTotalMinutes_ || focus != focusMinutes_ || change != changeText_ || scale != scaleMinutes_) {
        rangeText_ = range;
        previousRangeText_ = previousRange;
        totalMinutes_ = total;
        previousTotalMinutes_ = previousTotal;
        focusMinutes_ = focus;
        changeText_ = change;
        scaleMinutes_ = scale;
        emit summaryChanged();
    }
}

} // namespace tavelo
