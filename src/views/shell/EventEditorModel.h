#pragma once

#include <QAbstractListModel>
#include <QDate>
#include <QObject>
#include "views/support/SourceBinding.h"
#include <QStringList>
#include <QTimer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include "stores/EventDraft.h"
#include "stores/SceneState.h"

#include <optional>
#include <vector>

namespace tavelo {
class RowDiff;
class AppStore;
class SceneState;
}

namespace tavelo::shell {

// The calendars an event can be written to, each with whether the draft
// names it.
class EditorCalendarChoices : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Owned by the event editor")
public:
    enum Role { CalendarIDRole = Qt::UserRole + 1, NameRole, ColorRole, AccountNameRole, SelectedRole, ReceivesBusyBlocksRole };
    struct Row {
        QString calendarID;
        QString name;
        QString color;
        QString accountName;
        bool selected = false;
        bool receivesBusyBlocks = false;
        bool operator==(const Row&) const = default;
    };

    explicit EditorCalendarChoices(QObject* parent = nullptr) : QAbstractListModel(parent) {}
    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    void setRows(std::vector<Row> rows);
    const std::vector<Row>& rows() const { return rows_; }

private:
    friend class tavelo::RowDiff;
    std::vector<Row> rows_;
};

// The event editor behind the dialog: opens whenever the scene presents an
// editor, holds the draft while the user edits, validates it with the
// store's rules, asks the store for the availability of its time as it
// changes, and saves through the store. All day and time arithmetic is done
// in the store's calendar.
class EventEditorModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ storeObject WRITE setStoreObject NOTIFY storeChanged)
    Q_PROPERTY(QObject* scene READ sceneObject WRITE setSceneObject NOTIFY sceneChanged)
    Q_PROPERTY(bool isOpen READ isOpen NOTIFY isOpenChanged)
    Q_PROPERTY(bool isCreate READ isCreate NOTIFY isOpenChanged)
    Q_PROPERTY(QString title READ title WRITE setTitle NOTIFY draftChanged)
    Q_PROPERTY(bool isAllDay READ isAllDay WRITE setAllDay NOTIFY draftChanged)
    Q_PROPERTY(QDate startDay READ startDay WRITE setStartDay NOTIFY draftChanged)
    Q_PROPERTY(QString startTime READ startTime WRITE setStartTime NOTIFY draftChanged)
    Q_PROPERTY(QDate endDay READ endDay WRITE setEndDay NOTIFY draftChanged)
    Q_PROPERTY(QString endTime READ endTime WRITE setEndTime NOTIFY draftChanged)
    Q_PROPERTY(QString location READ location WRITE setLocation NOTIFY draftChanged)
    Q_PROPERTY(QString notes READ notes WRITE setNotes NOTIFY draftChanged)
    Q_PROPERTY(QString recurrence READ recurrence WRITE setRecurrence NOTIFY draftChanged)
    Q_PROPERTY(QString tagID READ tagID WRITE setTagID NOTIFY draftChanged)
    Q_PROPERTY(QVariantList tagChoices READ tagChoices NOTIFY tagChoicesChanged)
    Q_PROPERTY(QStringList guests READ guests NOTIFY draftChanged)
    Q_PROPERTY(QString guestError READ guestError NOTIFY guestErrorChanged)
    Q_PROPERTY(QVariantList notifications READ notifications NOTIFY draftChanged)
    Q_PROPERTY(bool offersMeet READ offersMeet NOTIFY draftChanged)
    Q_PROPERTY(bool requestsMeet READ requestsMeet WRITE setRequestsMeet NOTIFY draftChanged)
    Q_PROPERTY(QObject* calendars READ calendars CONSTANT)
    Q_PROPERTY(QString validationMessage READ validationMessage NOTIFY draftChanged)
    Q_PROPERTY(bool canSave READ canSave NOTIFY canSaveChanged)
    Q_PROPERTY(bool isSaving READ isSaving NOTIFY isSavingChanged)
    Q_PROPERTY(bool availabilityLoading READ availabilityLoading NOTIFY availabilityChanged)
    Q_PROPERTY(QString availabilityText READ availabilityText NOTIFY availabilityChanged)
    Q_PROPERTY(QVariantList availabilityRows READ availabilityRows NOTIFY availabilityChanged)

public:
    explicit EventEditorModel(QObject* parent = nullptr);
    ~EventEditorModel() override;

    QObject* storeObject() const;
    void setStoreObject(QObject* store);
    QObject* sceneObject() const;
    void setSceneObject(QObject* scene);

    bool isOpen() const { return draft_.has_value(); }
    bool isCreate() const { return !editingEventID_; }
    const std::optional<EventDraft>& draft() const { return draft_; }

    QString title() const;
    void setTitle(const QString& value);
    bool isAllDay() const;
    void setAllDay(bool value);
    QDate startDay() const;
    void setStartDay(const QDate& day);
    QString startTime() const;
    void setStartTime(const QString& time);
    QDate endDay() const;
    void setEndDay(const QDate& day);
    QString endTime() const;
    void setEndTime(const QString& time);
    QString location() const;
    void setLocation(const QString& value);
    QString notes() const;
    void setNotes(const QString& value);
    // "", "daily", "weekly", "monthly"
    QString recurrence() const;
    void setRecurrence(const QString& value);
    // "" lets the tag rules decide.
    QString tagID() const;
    void setTagID(const QString& value);
    QVariantList tagChoices() const;
    QStringList guests() const;
    QString guestError() const { return guestError_; }
    QVariantList notifications() const;
    bool offersMeet() const;
    bool requestsMeet() const;
    void setRequestsMeet(bool value);
    QObject* calendars() const { return choices_; }
    QString validationMessage() const;
    bool canSave() const;
    bool isSaving() const { return isSaving_; }
    bool availabilityLoading() const { return availabilityLoading_; }
    QString availabilityText() const { return availabilityText_; }
    QVariantList availabilityRows() const { return availabilityRows_; }

    Q_INVOKABLE void toggleCalendar(int row);
    // False, with `guestError`, when the address is not one a guest can have.
    Q_INVOKABLE bool addGuest(const QString& email);
    Q_INVOKABLE void removeGuest(int index);
    Q_INVOKABLE void addNotification(int minutesBefore);
    Q_INVOKABLE void removeNotification(int index);
    // Saves through the store; the editor closes when the store took it.
    Q_INVOKABLE void save();
    Q_INVOKABLE void cancel();

    // Opens for `presentation` without going through a scene.
    void open(const std::optional<EditorPresentation>& presentation);

signals:
    void storeChanged();
    void sceneChanged();
    void isOpenChanged();
    void draftChanged();
    void tagChoicesChanged();
    void guestErrorChanged();
    void canSaveChanged();
    void isSavingChanged();
    void availabilityChanged();
    // A save ended; `saved` tells whether the store took it.
    void saveFinished(bool saved);

private:
    void followScene();
    void changeDraft(const std::function<void(EventDraft&)>& change);
    void refreshChoices();
    void scheduleAvailability();
    void askAvailability();
    void setSaving(bool value);
    void setGuestError(const QString& text);
    void announceCanSave();
    EventDraft defaultDraft() const;
    std::vector<UUID> defaultCalendars() const;

    SourceBinding<AppStore> store_;
    SourceBinding<SceneState> scene_;
    EditorCalendarChoices* choices_;
    std::optional<EventDraft> draft_;
    std::optional<UUID> editingEventID_;
    bool isSaving_ = false;
    bool lastCanSave_ = false;
    QString guestError_;
    QTimer availabilityTimer_;
    int availabilityQuestion_ = 0;
    bool availabilityLoading_ = false;
    QString availabilityText_;
    QVariantList availabilityRows_;
};

} // namespace tavelo::shell
