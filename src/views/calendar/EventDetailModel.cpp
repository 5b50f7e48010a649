#include "views/calendar/EventDetailModel.h"

#include "stores/AppStore.h"
#include "stores/SceneState.h"
#include "views/calendar/CalendarViewSupport.h"

#include <QCoro/QCoroTask>

namespace tavelo {

namespace Support = CalendarViewSupport;

EventDetailModel::EventDetailModel(QObject* parent) : QObject(parent) {}

QObject* EventDetailModel::store() const { return store_; }
QObject* EventDetailModel::scene() const { return scene_; }

void EventDetailModel::setStore(QObject* object) {
    AppStore* store = Support::appStore(object);
    if (!store_.follow(store)) return;
    store_.on({&AppStore::eventsChanged, &AppStore::calendarsChanged, &AppStore::tagsChanged}, this, &EventDetailModel::refresh);
    emit storeChanged();
    refresh();
}

void EventDetailModel::setScene(QObject* object) {
    SceneState* scene = Support::sceneState(object);
    if (!scene_.follow(scene)) return;
    scene_.on(&SceneState::selectedEventIDChanged, this, &EventDetailModel::refresh);
    emit sceneChanged();
    refresh();
}

void EventDetailModel::refresh() {
    const CalendarEvent* event = nullptr;
    if (store_ && scene_ && scene_->selectedEventID())
        for (const CalendarEvent& candidate : store_->events())
            if (candidate.id == *scene_->selectedEventID()) {
                event = &candidate;
                break;
            }
    QString id, title, date, time, location, notes, tag, color;
    QStringList calendars, guests;
    int copies = 0;
    bool busy = false;
    if (event) {
        const DateCalendar& calendar = store_->dateCalendar();
        id = event->id.toString();
        title = event->title.isEmpty() ? QStringLiteral("(タイトルなし)") : event->title;
        date = Support::longDateText(event->start, calendar);
        time = Support::timeRangeText(*event, calendar);
        location = event->location;
        notes = event->notes;
        busy = event->isGeneratedBusyBlock;
        for (const CalendarEvent& member : store_->events())
            if (member.groupID == event->groupID && !member.isGeneratedBusyBlock) {
                ++copies;
                for (const CalendarSource& source : store_->calendars())
                    if (source.id == member.calendarID) {
                        calendars.push_back(source.name);
                        if (member.id == event->id) color = source.colorHex;
                    }
            }
        for (const Guest& guest : event->guests)
            guests.push_back(guest.name.isEmpty() ? guest.email : QStringLiteral("%1 <%2>").arg(guest.name, guest.email));
        if (event->tagID)
            for (const Tag& candidate : store_->tags())
                if (candidate.id == *event->tagID) tag = candidate.name;
    }
    if (id == eventId_ && title == title_ && date == dateText_ && time == timeText_ && location == location_ &&
        notes == notes_ && calendars == calendarNames_ && guests == guests_ && tag == tagName_ && color == colorHex_ &&
        copies == copyCount_ && busy == isBusyBlock_)
        return;
    eventId_ = id;
    title_ = title;
    dateText_ = date;
    timeText_ = time;
    location_ = location;
    notes_ = notes;
    calendarNames_ = calendars;
    guests_ = guests;
    tagName_ = tag;
    colorHex_ = color;
    copyCount_ = copies;
    isBusyBlock_ = busy;
    emit detailChanged();
}

QString EventDetailModel::deleteQuestion() const {
    if (copyCount_ > 1)
        return QStringLiteral("この予定は %1 つのカレンダー (%2) にあります。すべてのカレンダーから削除しますか？")
            .arg(copyCount_)
            .arg(calendarNames_.join(QStringLiteral("、")));
    return QStringLiteral("「%1」を削除しますか？").arg(title_);
}

void EventDetailModel::edit() {
    const auto id = UUID::fromString(eventId_);
    if (!id || !scene_) return;
    scene_->setEditorPresentation(EditorPresentation::edit(*id));
    scene_->closeEventDetail();
}

void EventDetailModel::deleteEvent() {
    const auto id = UUID::fromString(eventId_);
    if (!id || !store_) return;
    if (scene_) scene_->closeEventDetail();
    QCoro::connect(store_->deleteEvent(*id), this, [this](bool succeeded) { emit deleted(succeeded); });
}

void EventDetailModel::close() {
    if (scene_) scene_->closeEventDetail();
}

} // namespace tavelo
