#pragma once

#include <QAbstractListModel>
#include <QDate>
#include <QObject>
#include "views/support/SourceBinding.h"
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include "ai/AISchedule.h"
#include "ai/CloudSession.h"

#include <QCoro/QCoroTask>

#include <exception>
#include <functional>
#include <optional>
#include <vector>

namespace tavelo {
class RowDiff;
class AICloudStore;
class AppStore;
}

namespace tavelo::shell {

// The AI schedules as the cloud last reported them, each with the status of
// its latest run and its next run.
class AIScheduleListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("Owned by the settings")
public:
    enum Role { ScheduleIDRole = Qt::UserRole + 1, TitleRole, StatusRole, NextRunRole, RecurrenceRole, PausedRole };
    struct Row {
        QString scheduleID;
        QString title;
        QString status;
        QString nextRun;
        QString recurrence;
        bool paused = false;
        bool operator==(const Row&) const = default;
    };

    explicit AIScheduleListModel(QObject* parent = nullptr) : QAbstractListModel(parent) {}
    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    void setRows(std::vector<Row> rows);
    const std::vector<Row>& rows() const { return rows_; }

private:
    friend class tavelo::RowDiff;
    std::vector<Row> rows_;
};

// The settings that are neither tags nor Google accounts: the cloud account
// and sign-out, the ChatGPT link with its device login, and the AI schedules
// with their editor.
class SettingsModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ storeObject WRITE setStoreObject NOTIFY storeChanged)
    Q_PROPERTY(QObject* cloud READ cloudObject WRITE setCloudObject NOTIFY cloudChanged)
    Q_PROPERTY(QString accountText READ accountText NOTIFY accountChanged)
    Q_PROPERTY(QString endpoint READ endpoint NOTIFY accountChanged)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY isBusyChanged)
    Q_PROPERTY(QString errorText READ errorText NOTIFY errorTextChanged)
    Q_PROPERTY(bool isChatGPTConnected READ isChatGPTConnected NOTIFY accountChanged)
    Q_PROPERTY(QString chatGPTAccountText READ chatGPTAccountText NOTIFY accountChanged)
    Q_PROPERTY(QString loginCode READ loginCode NOTIFY loginChanged)
    Q_PROPERTY(QUrl loginURL READ loginURL NOTIFY loginChanged)
    Q_PROPERTY(QObject* schedules READ schedules CONSTANT)
    // The schedule editor.
    Q_PROPERTY(bool isEditingSchedule READ isEditingSchedule NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QString scheduleTitle READ scheduleTitle WRITE setScheduleTitle NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QString schedulePrompt READ schedulePrompt WRITE setSchedulePrompt NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QDate scheduleDay READ scheduleDay WRITE setScheduleDay NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QString scheduleTime READ scheduleTime WRITE setScheduleTime NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QString scheduleRecurrence READ scheduleRecurrence WRITE setScheduleRecurrence NOTIFY scheduleDraftChanged)
    Q_PROPERTY(bool schedulePaused READ schedulePaused WRITE setSchedulePaused NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QString scheduleValidationMessage READ scheduleValidationMessage NOTIFY scheduleDraftChanged)
    Q_PROPERTY(QStringList scheduleNextOccurrences READ scheduleNextOccurrences NOTIFY scheduleDraftChanged)

public:
    explicit SettingsModel(QObject* parent = nullptr);

    QObject* storeObject() const;
    void setStoreObject(QObject* store);
    QObject* cloudObject() const;
    void setCloudObject(QObject* cloud);

    QString accountText() const;
    QString endpoint() const;
    bool isBusy() const { return isBusy_; }
    QString errorText() const { return errorText_; }
    bool isChatGPTConnected() const;
    QString chatGPTAccountText() const;
    QString loginCode() const { return login_ ? login_->userCode : QString(); }
    QUrl loginURL() const { return login_ ? login_->verificationUrl : QUrl(); }
    QObject* schedules() const { return schedules_; }

    bool isEditingSchedule() const { return scheduleDraft_.has_value(); }
    QString scheduleTitle() const;
    void setScheduleTitle(const QString& value);
    QString schedulePrompt() const;
    void setSchedulePrompt(const QString& value);
    QDate scheduleDay() const;
    void setScheduleDay(const QDate& day);
    QString scheduleTime() const;
    void setScheduleTime(const QString& time);
    QString scheduleRecurrence() const;
    void setScheduleRecurrence(const QString& value);
    bool schedulePaused() const;
    void setSchedulePaused(bool value);
    QString scheduleValidationMessage() const;
    // The next five runs of the schedule under edit, as text.
    QStringList scheduleNextOccurrences() const;
    const std::optional<AISchedule>& scheduleDraft() const { return scheduleDraft_; }

    Q_INVOKABLE void selectSection(QObject* scene, const QString& section);
    Q_INVOKABLE void signOut();
    Q_INVOKABLE void startChatGPTLogin();
    Q_INVOKABLE void unlinkChatGPT();
    Q_INVOKABLE void refreshSchedules();
    Q_INVOKABLE void newSchedule();
    Q_INVOKABLE void editSchedule(int row);
    Q_INVOKABLE void cancelScheduleEdit();
    Q_INVOKABLE void saveSchedule();
    Q_INVOKABLE void runScheduleNow(int row);
    Q_INVOKABLE void deleteSchedule(int row);

signals:
    void storeChanged();
    void cloudChanged();
    void accountChanged();
    void isBusyChanged();
    void errorTextChanged();
    void loginChanged();
    void scheduleDraftChanged();

private:
    void refreshScheduleRows();
    std::optional<UUID> scheduleIDAt(int row) const;
    void changeSchedule(const std::function<void(AISchedule&)>& change);
    template <class T, class Done>
    void run(QCoro::Task<T>&& task, Done done);
    void setBusy(bool value);
    void setErrorText(const QString& text);

    SourceBinding<AppStore> store_;
    SourceBinding<AICloudStore> cloud_;
    AIScheduleListModel* schedules_;
    bool isBusy_ = false;
    QString errorText_;
    std::optional<AILogin> login_;
    std::optional<AISchedule> scheduleDraft_;
};

} // namespace tavelo::shell
