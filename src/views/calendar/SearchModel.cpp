#include "views/calendar/SearchModel.h"

#include "stores/AppStore.h"
#include "stores/EventDerivations.h"
#include "stores/SceneState.h"
#include "views/calendar/CalendarViewSupport.h"

#include <QCoro/QCoroTask>

namespace tavelo {

namespace Support = CalendarViewSupport;

SearchModel::SearchModel(QObject* parent) : QObject(parent), results_(new CalendarItemModel(this)) {}
SearchModel::~SearchModel() = default;

QObject* SearchModel::store() const { return store_; }
QObject* SearchModel::scene() const { return scene_; }

void SearchModel::setStore(QObject* object) {
    AppStore* store = Support::appStore(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::eventsChanged, &AppStore::calendarsChanged, &AppStore::accountsChanged}, this, &SearchModel::invalidateSnapshot);
    store_.on(&AppStore::preferencesChanged, this, [this] {
        invalidateSnapshot();
        emit includePastChanged();
    });
    snapshot_.reset();
    results_->setTextCalendar(store ? std::optional<DateCalendar>(store->dateCalendar()) : std::nullopt);
    emit storeChanged();
    emit includePastChanged();
    refresh();
}

void SearchModel::setScene(QObject* object) {
    SceneState* scene = Support::sceneState(object);
    if (!scene_.follow(scene)) return;
    emit sceneChanged();
}

void SearchModel::setQuery(const QString& query) {
    if (query == query_) return;
    query_ = query;
    emit queryChanged();
    refresh();
}

bool SearchModel::includePast() const { return store_ && store_->preferences().includePastSearchResults; }

void SearchModel::setIncludePast(bool include) {
    if (!store_ || include == includePast()) return;
    QCoro::connect(store_->setPastSearchResultsIncluded(include), this, [](bool) {});
}

void SearchModel::invalidateSnapshot() {
    snapshot_.reset();
    refresh();
}

void SearchModel::refresh() {
    std::vector<CalendarItemRow> rows;
    QString summary;
    if (store_ && !query_.trimmed().isEmpty()) {
        if (!snapshot_) snapshot_ = store_->snapshot();
        const Date now = Date::now();
        const auto colors = Support::calendarColors(*store_);
        const std::vector<DisplayedEvent> found = EventDerivations::search(query_, std::nullopt, now, *snapshot_);
        rows.reserve(found.size());
        for (const DisplayedEvent& entry : found) {
            const CalendarEvent& event = entry.primary;
            CalendarItemRow row;
            row.eventID = entry.id();
            row.title = event.title;
            const auto color = colors.find(event.calendarID);
            if (color != colors.end()) row.colorHex = color->second;
            row.start = event.start;
            row.end = event.end;
            row.calendarCount = static_cast<int>(std::max<std::size_t>(1, entry.calendarIDs.size()));
            row.isAllDay = event.isAllDay;
            row.isBusyBlock = event.isGeneratedBusyBlock;
            row.isPast = !(event.end > now);
            rows.push_back(std::move(row));
        }
        summary = rows.empty() ? QStringLiteral("一致する予定はありません") : QStringLiteral("%1 件").arg(rows.size());
    }
    results_->setRows(std::move(rows));
    if (summary != summaryText_) {
        summaryText_ = summary;
        emit summaryTextChanged();
    }
}

void SearchModel::openDetail(const QString& eventId) {
    const auto id = UUID::fromString(eventId);
    if (!id || !scene_ || !store_) return;
    scene_->selectEvent({*id, EventPopoverAnchor::Search{}}, store_->events());
}

} // namespace tavelo
