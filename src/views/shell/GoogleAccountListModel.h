#pragma once

#include <QAbstractListModel>
#include <QtQml/qqmlregistration.h>

#include "support/UUID.h"
#include "views/support/SourceBinding.h"

#include <optional>
#include <vector>

namespace tavelo {
class AppStore;
class RowDiff;
} // namespace tavelo

namespace tavelo::shell {

// The Google accounts of the settings (the accounts with a Google subject):
// each with its status text, warnings and last sync, and the account actions
// of the store. Without Google configured, `configurationMessage` says where
// the OAuth settings go and the actions do nothing.
class GoogleAccountListModel : public QAbstractListModel {
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QObject* store READ storeObject WRITE setStoreObject NOTIFY storeChanged)
    Q_PROPERTY(bool isConfigured READ isConfigured NOTIFY storeChanged)
    Q_PROPERTY(QString configurationMessage READ configurationMessage NOTIFY storeChanged)
    Q_PROPERTY(bool isSyncing READ isSyncing NOTIFY isSyncingChanged)
    Q_PROPERTY(QString authenticationMessage READ authenticationMessage NOTIFY authenticationMessageChanged)
    // True while the browser sign-in of a connect or reconnect is under way.
    Q_PROPERTY(bool isAuthenticating READ isAuthenticating NOTIFY isAuthenticatingChanged)
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        AccountIDRole = Qt::UserRole + 1,
        NameRole,
        EmailRole,
        ColorRole,
        StatusRole,
        StatusMessageRole,
        NeedsReconnectRole,
        LastSyncTextRole,
        WarningsRole,
    };
    struct Row {
        QString accountID;
        QString name;
        QString email;
        QString color;
        QString status; // the case name of `GoogleSyncStatus`
        QString statusMessage;
        bool needsReconnect = false;
        QString lastSyncText;
        QStringList warnings;
        bool operator==(const Row&) const = default;
    };

    explicit GoogleAccountListModel(QObject* parent = nullptr);

    QObject* storeObject() const;
    void setStoreObject(QObject* store);
    bool isConfigured() const;
    QString configurationMessage() const;
    bool isSyncing() const;
    QString authenticationMessage() const;
    bool isAuthenticating() const;
    int count() const { return static_cast<int>(rows_.size()); }

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    // Opens the browser for a new account. False when it did not start
    // (Google not configured, another action under way).
    Q_INVOKABLE bool connectAccount();
    Q_INVOKABLE bool reconnectAccount(int row);
    // Erases the account's local copy; nothing changes at Google.
    Q_INVOKABLE void disconnectAccount(int row);
    Q_INVOKABLE void syncAccount(int row);
    Q_INVOKABLE void syncAll();
    // Gives up the browser sign-in under way; the store shows the
    // cancellation and offers to try again.
    Q_INVOKABLE void cancelAuthentication();

    static std::vector<Row> rowsFor(const AppStore& store);

signals:
    void storeChanged();
    void isSyncingChanged();
    void authenticationMessageChanged();
    void isAuthenticatingChanged();
    void countChanged();

private:
    void refresh();
    std::optional<UUID> accountAt(int row) const;
    friend class tavelo::RowDiff;

    SourceBinding<AppStore> store_;
    std::vector<Row> rows_;
};

} // namespace tavelo::shell
