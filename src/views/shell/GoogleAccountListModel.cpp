#include "views/shell/GoogleAccountListModel.h"

#include "stores/AppStore.h"
#include "support/DateCalendar.h"
#include "views/shell/ShellTasks.h"
#include "views/support/RowDiff.h"

#include <algorithm>

namespace tavelo::shell {

namespace {

QString calendarName(const AppStore& store, const UUID& id) {
    for (const CalendarSource& calendar : store.calendars())
        if (calendar.id == id) return calendar.name;
    return QStringLiteral("（削除済みのカレンダー）");
}

QString warningText(const GoogleSyncWarning& warning, const AppStore& store) {
    return std::visit(
        [&](const auto& w) -> QString {
            using W = std::decay_t<decltype(w)>;
            if constexpr (std::is_same_v<W, GoogleSyncWarning::SkippedCalendars>)
                return QStringLiteral("%1件のカレンダーを読み込めませんでした。").arg(w.count);
            else if constexpr (std::is_same_v<W, GoogleSyncWarning::SkippedEvents>)
                return QStringLiteral("「%1」の%2件の予定を読み込めませんでした。").arg(calendarName(store, w.calendarID)).arg(w.count);
            else
                return QStringLiteral("「%1」を同期できませんでした。").arg(calendarName(store, w.calendarID));
        },
        warning.value);
}

QString lastSyncText(const std::optional<Date>& date, const DateCalendar& calendar) {
    if (!date) return QStringLiteral("まだ同期していません");
    const auto c = calendar.components(*date);
    return QStringLiteral("最終同期 %1年%2月%3日 %4:%5")
        .arg(c.year)
        .arg(c.month)
        .arg(c.day)
        .arg(c.hour)
        .arg(c.minute, 2, 10, QLatin1Char('0'));
}

} // namespace

GoogleAccountListModel::GoogleAccountListModel(QObject* parent) : QAbstractListModel(parent) {}

QObject* GoogleAccountListModel::storeObject() const { return store_.get(); }

void GoogleAccountListModel::setStoreObject(QObject* object) {
    if (!store_.follow(qobject_cast<AppStore*>(object))) return;
    store_.on({&AppStore::accountsChanged, &AppStore::calendarsChanged, &AppStore::googleSyncStatusesChanged,
               &AppStore::googleSyncWarningsChanged},
              this, &GoogleAccountListModel::refresh);
    store_.on(&AppStore::isSyncingChanged, this, &GoogleAccountListModel::isSyncingChanged);
    store_.on(&AppStore::googleAuthenticationMessageChanged, this, &GoogleAccountListModel::authenticationMessageChanged);
    store_.on(&AppStore::isGoogleAuthenticationPendingChanged, this, &GoogleAccountListModel::isAuthenticatingChanged);
    refresh();
    emit storeChanged();
    emit isSyncingChanged();
    emit authenticationMessageChanged();
    emit isAuthenticatingChanged();
}

bool GoogleAccountListModel::isConfigured() const { return store_ && store_->hasGoogleAccountService(); }

QString GoogleAccountListModel::configurationMessage() const {
    return store_ ? store_->googleConfigurationMessage().value_or(QString()) : QString();
}

bool GoogleAccountListModel::isSyncing() const { return store_ && store_->isSyncing(); }

bool GoogleAccountListModel::isAuthenticating() const {
    return store_ && store_->isGoogleAuthenticationPending();
}

QString GoogleAccountListModel::authenticationMessage() const {
    return store_ ? store_->googleAuthenticationMessageText() : QString();
}

std::vector<GoogleAccountListModel::Row> GoogleAccountListModel::rowsFor(const AppStore& store) {
    std::vector<Row> rows;
    for (const Account& account : store.accounts()) {
        if (!account.googleSubject) continue;
        const GoogleSyncStatus status = store.googleSyncStatus(account.id);
        Row row{account.id.toString(),
                account.name,
                account.email,
                account.colorHex,
                QString::fromLatin1(toString(status).data(), static_cast<qsizetype>(toString(status).size())),
                store.googleStatusMessage(account.id),
                status == GoogleSyncStatus::reconnectRequired,
                lastSyncText(store.googleLastSync(account.id), store.dateCalendar()),
                {}};
        if (const auto found = store.googleSyncWarnings().find(account.id); found != store.googleSyncWarnings().end())
            for (const GoogleSyncWarning& warning : found->second) row.warnings.push_back(warningText(warning, store));
        rows.push_back(std::move(row));
    }
    return rows;
}

void GoogleAccountListModel::refresh() {
    if (RowDiff::replaceRows(*this, rows_, store_ ? rowsFor(*store_) : std::vector<Row>{},
                             [](const Row& r) { return r.accountID; }))
        emit countChanged();
}

int GoogleAccountListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

QVariant GoogleAccountListModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid)) return {};
    const Row& row = rows_[static_cast<std::size_t>(index.row())];
    switch (role) {
    case Qt::DisplayRole:
    case NameRole: return row.name;
    case AccountIDRole: return row.accountID;
    case EmailRole: return row.email;
    case ColorRole: return row.color;
    case StatusRole: return row.status;
    case StatusMessageRole: return row.statusMessage;
    case NeedsReconnectRole: return row.needsReconnect;
    case LastSyncTextRole: return row.lastSyncText;
    case WarningsRole: return row.warnings;
    default: return {};
    }
}

QHash<int, QByteArray> GoogleAccountListModel::roleNames() const {
    return {{AccountIDRole, "accountID"},         {NameRole, "name"},
            {EmailRole, "email"},                 {ColorRole, "accountColor"},
            {StatusRole, "status"},               {StatusMessageRole, "statusMessage"},
            {NeedsReconnectRole, "needsReconnect"}, {LastSyncTextRole, "lastSyncText"},
            {WarningsRole, "warnings"}};
}

std::optional<UUID> GoogleAccountListModel::accountAt(int row) const {
    if (!store_ || row < 0 || row >= count()) return std::nullopt;
    return UUID::fromString(rows_[static_cast<std::size_t>(row)].accountID);
}

bool GoogleAccountListModel::connectAccount() {
    return store_ && store_->beginGoogleAuthentication(GoogleAuthenticationRequest::connect()).has_value();
}

bool GoogleAccountListModel::reconnectAccount(int row) {
    const auto id = accountAt(row);
    return id && store_->beginGoogleAuthentication(GoogleAuthenticationRequest::reconnect(*id)).has_value();
}

void GoogleAccountListModel::disconnectAccount(int row) {
    if (const auto id = accountAt(row)) launch(store_->disconnectGoogleAccount(*id), this);
}

void GoogleAccountListModel::syncAccount(int row) {
    if (const auto id = accountAt(row)) launch(store_->syncGoogleAccount(*id), this);
}

void GoogleAccountListModel::syncAll() {
    if (store_) launch(store_->syncAllGoogleAccounts(), this);
}

void GoogleAccountListModel::cancelAuthentication() {
    if (store_) store_->cancelGoogleAuthentication();
}

} // namespace tavelo::shell
