#pragma once

#include <QObject>
#include "views/support/SourceBinding.h"
#include <QString>
#include <QtQml/qqmlregistration.h>

namespace tavelo {
class AICloudStore;
class AppStore;
class Date;
class DateCalendar;
class SceneState;
}

namespace tavelo::shell {

// The window's commands over one workspace: navigation, the toolbar (today,
// paging, the range shown, new event), the message bar of the store and of
// the cloud. Holds no state of its own beyond what it reads.
class ShellController : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ storeObject WRITE setStoreObject NOTIFY storeChanged)
    Q_PROPERTY(QObject* scene READ sceneObject WRITE setSceneObject NOTIFY sceneChanged)
    Q_PROPERTY(QObject* cloud READ cloudObject WRITE setCloudObject NOTIFY cloudChanged)
    Q_PROPERTY(QString rangeText READ rangeText NOTIFY rangeTextChanged)
    Q_PROPERTY(QString navigation READ navigation NOTIFY navigationChanged)
    Q_PROPERTY(bool pagingAvailable READ pagingAvailable NOTIFY navigationChanged)
    Q_PROPERTY(QString storeMessage READ storeMessage NOTIFY storeMessageChanged)
    Q_PROPERTY(bool canRetry READ canRetry NOTIFY storeMessageChanged)
    Q_PROPERTY(QString cloudMessage READ cloudMessage NOTIFY cloudMessageChanged)

public:
    explicit ShellController(QObject* parent = nullptr);

    QObject* storeObject() const;
    void setStoreObject(QObject* store);
    QObject* sceneObject() const;
    void setSceneObject(QObject* scene);
    QObject* cloudObject() const;
    void setCloudObject(QObject* cloud);

    // "2026年11月22日（日）〜 28日（土）" for a week, "2026年11月" on the month screen.
    QString rangeText() const;
    QString navigation() const;
    bool pagingAvailable() const;
    QString storeMessage() const;
    bool canRetry() const;
    QString cloudMessage() const;

    // "week", "month", "search", "report", "meetings", "settings", or
    // "calendar" for the calendar screen last used.
    Q_INVOKABLE void navigate(const QString& item);
    // "accounts", "tags", "meetings", "meetingGuides", "aiCloud".
    Q_INVOKABLE void openSettings(const QString& section);
    Q_INVOKABLE void goToToday();
    Q_INVOKABLE void page(int by);
    // Moves the selected day by `days` (arrow keys on the calendar).
    Q_INVOKABLE void moveSelectedDay(int days);
    // A new event with no pending draft.
    Q_INVOKABLE void newEvent();
    Q_INVOKABLE void retry();
    Q_INVOKABLE void dismissStoreMessage();
    Q_INVOKABLE void dismissCloudMessage();

signals:
    void storeChanged();
    void sceneChanged();
    void cloudChanged();
    void rangeTextChanged();
    void navigationChanged();
    void storeMessageChanged();
    void cloudMessageChanged();

private:
    SourceBinding<AppStore> store_;
    SourceBinding<SceneState> scene_;
    SourceBinding<AICloudStore> cloud_;
    // The cloud's message as dismissed; it shows again when it changes.
    QString dismissedCloudMessage_;
};

// The week or month range text for `date`, as the toolbar shows it.
QString toolbarRangeText(const Date& date, bool month, const DateCalendar& calendar);

} // namespace tavelo::shell
