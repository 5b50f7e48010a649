#pragma once

#include <QObject>
#include "views/support/SourceBinding.h"
#include <QStringList>
#include <qqmlintegration.h>

namespace tavelo {

class AppStore;
class SceneState;
struct CalendarEvent;

// The event whose detail is open in the scene, as the popover shows it, with
// its edit and delete actions.
class EventDetailModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ store WRITE setStore NOTIFY storeChanged)
    Q_PROPERTY(QObject* scene READ scene WRITE setScene NOTIFY sceneChanged)
    Q_PROPERTY(bool hasEvent READ hasEvent NOTIFY detailChanged)
    Q_PROPERTY(QString eventId READ eventId NOTIFY detailChanged)
    Q_PROPERTY(QString title READ title NOTIFY detailChanged)
    Q_PROPERTY(QString dateText READ dateText NOTIFY detailChanged)
    Q_PROPERTY(QString timeText READ timeText NOTIFY detailChanged)
    Q_PROPERTY(QString location READ location NOTIFY detailChanged)
    Q_PROPERTY(QString notes READ notes NOTIFY detailChanged)
    Q_PROPERTY(QStringList calendarNames READ calendarNames NOTIFY detailChanged)
    Q_PROPERTY(QStringList guests READ guests NOTIFY detailChanged)
    Q_PROPERTY(QString tagName READ tagName NOTIFY detailChanged)
    Q_PROPERTY(QString colorHex READ colorHex NOTIFY detailChanged)
    // How many calendars the event's group stands on; delete removes all.
    Q_PROPERTY(int copyCount READ copyCount NOTIFY detailChanged)
    Q_PROPERTY(bool isBusyBlock READ isBusyBlock NOTIFY detailChanged)
    Q_PROPERTY(QString deleteQuestion READ deleteQuestion NOTIFY detailChanged)

public:
    explicit EventDetailModel(QObject* parent = nullptr);

    QObject* store() const;
    void setStore(QObject* store);
    QObject* scene() const;
    void setScene(QObject* scene);

    bool hasEvent() const { return !eventId_.isEmpty(); }
    QString eventId() const { return eventId_; }
    QString title() const { return title_; }
    QString dateText() const { return dateText_; }
    QString timeText() const { return timeText_; }
    QString location() const { return location_; }
    QString notes() const { return notes_; }
    QStringList calendarNames() const { return calendarNames_; }
    QStringList guests() const { return guests_; }
    QString tagName() const { return tagName_; }
    QString colorHex() const { return colorHex_; }
    int copyCount() const { return copyCount_; }
    bool isBusyBlock() const { return isBusyBlock_; }
    QString deleteQuestion() const;

    // Opens the editor on this event.
    Q_INVOKABLE void edit();
    // Deletes the event's whole group and closes the detail.
    Q_INVOKABLE void deleteEvent();
    Q_INVOKABLE void close();
    Q_INVOKABLE void refresh();

signals:
    void storeChanged();
    void sceneChanged();
    void detailChanged();
    void deleted(bool succeeded);

private:
    SourceBinding<AppStore> store_;
    SourceBinding<SceneState> scene_;
    QString eventId_, title_, dateText_, timeText_, location_, notes_, tagName_, colorHex_;
    QStringList calendarNames_, guests_;
    int copyCount_ = 0;
    bool isBusyBlock_ = false;
};

} // namespace tavelo
