#include "services/GoogleCalendarService.h"

#include "google/GoogleCalendarAPIClient.h"
#include "google/GoogleCalendarMapper.h"
#include "google/GoogleLog.h"
#include "services/GoogleSyncEngine.h"
#include "services/LocalCalendarService.h"
#include "support/DateCalendar.h"

#include <QTimeZone>

#include <algorithm>
#include <set>

namespace tavelo {

std::optional<QString> GoogleCalendarServiceError::errorDescription() const {
    switch (kind_) {
    case Kind::reconnectRequired: return QStringLiteral("Googleアカウントを再接続してください。");
    case Kind::syncFailed: return QStringLiteral("Googleカレンダーを同期できませんでした。時間をおいて再試行してください。");
    case Kind::partialSync:
        return QStringLiteral("一部のGoogleカレンダーを同期できませんでした。失敗した項目を再試行してください。");
    case Kind::partialOperation:
        return QStringLiteral("一部のカレンダーへの変更を完了できませんでした。残りの項目を再試行してください。");
    case Kind::accountNotFound: return QStringLiteral("Googleアカウントを確認できませんでした。");
    case Kind::authorizationFailed: return QStringLiteral("Googleアカウントの認証を完了できませんでした。");
    }
    return std::nullopt;
}

QCoro::Task<void> GoogleCalendarTransactionGate::acquire(std::stop_token stop) {
    checkCancellation(stop);
    const bool owned = co_await lock_.acquire(true, stop);
    if (!owned) throw CancellationError();
}

namespace {

using APIKind = GoogleCalendarAPIError::Kind;

std::optional<QString> trimmedNonEmpty(const std::optional<QString>& text) {
    if (!text) return std::nullopt;
    QString t = text->trimmed();
    if (t.isEmpty()) return std::nullopt;
    return t;
}

// Whether a failure means the account has to be signed in again.
bool needsReconnect(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const GoogleCalendarAPIError& e) {
        return e.kind() == APIKind::reconnectRequired || e.kind() == APIKind::unauthorized;
    } catch (const GoogleCalendarServiceError& e) {
        return e.kind() == GoogleCalendarServiceError::Kind::reconnectRequired;
    } catch (...) {
        return false;
    }
}

// Selected entries with a usable id; a repeated id replaces the earlier
// entry at the earlier position.
std::vector<GoogleCalendarListEntryDTO> uniqueSelectedEntries(std::vector<GoogleCalendarListEntryDTO> entries) {
    std::vector<GoogleCalendarListEntryDTO> out;
    std::map<QString, std::size_t> positions;
    for (auto& entry : entries) {
        if (entry.selected != true) continue;
        const auto id = trimmedNonEmpty(entry.id);
        if (!id) continue;
        if (auto it = positions.find(*id); it != positions.end()) {
            out[it->second] = std::move(entry);
        } else {
            positions.emplace(*id, out.size());
            out.push_back(std::move(entry));
        }
    }
    return out;
}

bool isKnownZone(const QString& id) { return !id.isEmpty() && QTimeZone(id.toUtf8()).isValid(); }

Account* findAccount(AppSnapshot& snapshot, const UUID& id) {
    auto it = std::find_if(snapshot.accounts.begin(), snapshot.accounts.end(), [&](const Account& a) { return a.id == id; });
    return it == snapshot.accounts.end() ? nullptr : &*it;
}

template <class T>
void appendUnique(std::vector<T>& into, const std::vector<T>& values) {
    for (const auto& v : values)
        if (std::find(into.begin(), into.end(), v) == into.end()) into.push_back(v);
}

} // namespace

GoogleCalendarService::GoogleCalendarService(std::shared_ptr<LocalCalendarService> localService, Functions functions)
    : local_(std::move(localService)), functions_(std::move(functions)) {}

GoogleCalendarService::~GoogleCalendarService() = default;

// --- reads ---------------------------------------------------------------------

QCoro::Task<CalendarLoadResult> GoogleCalendarService::load() {
    co_await gate_.acquire();
    GateHold hold(gate_);
    CalendarLoadResult result = co_await local_->load();
    co_return result;
}

QCoro::Task<std::vector<Account>> GoogleCalendarService::fetchAccounts() {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::vector<Account> accounts = co_await local_->fetchAccounts();
    co_return accounts;
}

QCoro::Task<std::vector<CalendarSource>> GoogleCalendarService::fetchCalendars(std::optional<std::set<UUID>> accountIDs) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::vector<CalendarSource> calendars = co_await local_->fetchCalendars(accountIDs);
    co_return calendars;
}

QCoro::Task<std::vector<CalendarEvent>> GoogleCalendarService::fetchEvents(CalendarEventQuery query) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    std::vector<CalendarEvent> events = co_await local_->fetchEvents(query);
    co_return events;
}

QCoro::Task<GoogleSyncStatus> GoogleCalendarService::googleSyncStatus(UUID accountID) {
    auto it = statuses_.find(accountID);
    co_return it == statuses_.end() ? GoogleSyncStatus::idle : it->second;
}

QCoro::Task<std::vector<GoogleSyncWarning>> GoogleCalendarService::googleSyncWarnings(UUID accountID) {
    auto it = warnings_.find(accountID);
    std::vector<GoogleSyncWarning> warnings = it == warnings_.end() ? std::vector<GoogleSyncWarning>() : it->second;
    co_return warnings;
}

// --- saving from the application -------------------------------------------------

AppSnapshot GoogleCalendarService::preservingProviderState(const AppSnapshot& stored, AppSnapshot incoming) {
    // Accounts: Google's accounts keep their connection and sync time.
    std::set<UUID> incomingAccounts;
    for (auto& account : incoming.accounts) {
        incomingAccounts.insert(account.id);
        auto it = std::find_if(stored.accounts.begin(), stored.accounts.end(),
                               [&](const Account& a) { return a.id == account.id; });
        if (it == stored.accounts.end() || !it->googleSubject) continue;
        account.googleSubject = it->googleSubject;
        account.isConnected = it->isConnected;
        account.lastSync = it->lastSync;
        account.email = it->email;
    }
    for (const auto& account : stored.accounts)
        if (account.googleSubject && !incomingAccounts.contains(account.id)) incoming.accounts.push_back(account);

    // Calendars: the stored Google calendar stands, with the program's
    // visibility and busy-block choice.
    std::map<UUID, const CalendarSource*> storedCalendars;
    for (const auto& c : stored.calendars) storedCalendars.emplace(c.id, &c);
    std::set<UUID> incomingCalendars;
    for (auto& calendar : incoming.calendars) {
        incomingCalendars.insert(calendar.id);
        auto it = storedCalendars.find(calendar.id);
        if (it == storedCalendars.end() || !it->second->googleCalendarID) continue;
        CalendarSource kept = *it->second;
        kept.isVisible = calendar.isVisible;
        kept.receivesBusyBlocks = calendar.receivesBusyBlocks;
        calendar = std::move(kept);
    }
    for (const auto& calendar : stored.calendars)
        if (calendar.googleCalendarID && !incomingCalendars.contains(calendar.id)) incoming.calendars.push_back(calendar);

    // Events: a stored Google event stands, with what only the program owns.
    std::map<UUID, const CalendarEvent*> storedEvents;
    for (const auto& e : stored.events) storedEvents.emplace(e.id, &e);
    std::set<UUID> incomingEvents;
    for (auto& event : incoming.events) {
        incomingEvents.insert(event.id);
        auto it = storedEvents.find(event.id);
        if (it == storedEvents.end() || !it->second->googleEventID) continue;
        CalendarEvent kept = *it->second;
        kept.sourceEventID = event.sourceEventID;
        kept.kind = event.kind;
        kept.tagID = event.tagID;
        kept.isCompleted = event.isCompleted;
        kept.isGeneratedBusyBlock = event.isGeneratedBusyBlock;
        event = std::move(kept);
    }
    for (const auto& event : stored.events)
        if (event.googleEventID && !incomingEvents.contains(event.id)) incoming.events.push_back(event);

    // Sync states belong to the sync alone.
    incoming.googleSyncStates = stored.googleSyncStates;
    return incoming;
}

QCoro::Task<void> GoogleCalendarService::save(AppSnapshot snapshot) {
    co_await gate_.acquire();
    GateHold hold(gate_);
    CalendarLoadResult stored = co_await local_->load();
    AppSnapshot merged = preservingProviderState(stored.snapshot, std::move(snapshot));
    co_await local_->save(std::move(merged));
}

// --- synchronisation ---------------------------------------------------------------

QCoro::Task<void> GoogleCalendarService::syncGoogleAccount(UUID accountID, std::stop_token token) {
    co_await gate_.acquire(token);
    GateHold hold(gate_);
    checkCancellation(token);
    co_await syncGoogleAccountUngated(accountID, token);
}

QCoro::Task<void> GoogleCalendarService::fetchAllEventPages(const GoogleCalendarAPIClient& client,
                                                            QString googleCalendarID, std::optional<QString> syncToken,
                                                            GoogleEventListing& listing, std::stop_token stop) {
    std::set<QString> seen;
    std::optional<QString> pageToken;
    for (;;) {
        std::optional<QString> next;
        {
            // Each page is mapped and dropped before the next is asked for.
            GoogleEventPage page = co_await client.listEvents(googleCalendarID, syncToken, pageToken, stop);
            next = trimmedNonEmpty(page.nextPageToken);
            listing.add(page);
        }
        if (!next) break;
        if (!seen.insert(*next).second) throw GoogleCalendarAPIError(APIKind::invalidResponse);
        pageToken = next;
    }
}

QCoro::Task<AccountSyncOutcome> GoogleCalendarService::synchronizeAccount(UUID accountID, AppSnapshot snapshot,
                                                                          std::stop_token stop) {
    const Account* account = findAccount(snapshot, accountID);
    if (!account) throw GoogleCalendarServiceError::accountNotFound();
    const auto subject = trimmedNonEmpty(account->googleSubject);
    if (!subject) throw GoogleCalendarServiceError::accountNotFound();
    const GoogleCalendarAPIClient client = functions_.makeAPIClient(*subject);

    AccountSyncOutcome outcome;
    // Every calendar of the account, page by page.
    std::vector<GoogleCalendarListEntryDTO> entries;
    int skippedCalendars = 0;
    std::exception_ptr listFailure;
    try {
        std::optional<QString> pageToken;
        std::set<QString> seen;
        for (;;) {
            GoogleCalendarListPage page = co_await client.listCalendars(pageToken, stop);
            skippedCalendars += page.skippedItemCount;
            for (auto& entry : page.calendars) entries.push_back(std::move(entry));
            const auto next = trimmedNonEmpty(page.nextPageToken);
            if (!next) break;
            if (!seen.insert(*next).second) throw GoogleCalendarAPIError(APIKind::invalidResponse);
            pageToken = next;
        }
    } catch (...) {
        listFailure = std::current_exception();
    }
    if (listFailure) {
        if (isCancellation(listFailure)) std::rethrow_exception(listFailure);
        qCWarning(googleSyncLog, "Calendar list failed: %s", qUtf8Printable(localizedDescription(listFailure)));
        if (needsReconnect(listFailure)) throw GoogleCalendarServiceError::reconnectRequired(accountID);
        throw GoogleCalendarServiceError::syncFailed(accountID);
    }

    GoogleSyncMergeResult calendars =
        GoogleSyncEngine::mergingCalendars(uniqueSelectedEntries(std::move(entries)), accountID, skippedCalendars,
                                           std::move(snapshot));
    snapshot = std::move(calendars.snapshot);
    appendUnique(outcome.warnings, calendars.warnings);

    std::vector<CalendarSource> toSync;
    for (const auto& calendar : snapshot.calendars)
        if (calendar.accountID == accountID && calendar.googleCalendarID) toSync.push_back(calendar);

    for (const auto& calendar : toSync) {
        QString zone = calendar.googleTimeZoneIdentifier.value_or(QString());
        if (!isKnownZone(zone)) zone = QString::fromUtf8(QTimeZone::systemTimeZoneId());
        std::optional<QString> syncToken;
        for (const auto& state : snapshot.googleSyncStates)
            if (state.calendarID == calendar.id) syncToken = trimmedNonEmpty(state.syncToken);
        checkCancellation(stop);

        GoogleSyncMode mode = syncToken ? GoogleSyncMode::incremental : GoogleSyncMode::full;
        auto listing = std::make_unique<GoogleEventListing>(
            GoogleEventListing::followingPageZones(calendar, zone, snapshot));
        std::exception_ptr failure;
        bool tokenExpired = false;
        try {
            co_await fetchAllEventPages(client, *calendar.googleCalendarID, syncToken, *listing, stop);
        } catch (const GoogleCalendarAPIError& error) {
            if (syncToken && error.kind() == APIKind::syncTokenExpired)
                tokenExpired = true;
            else
                failure = std::current_exception();
        } catch (...) {
            failure = std::current_exception();
        }
        // An expired token restarts the calendar with one full listing. The
        // stored events, and the old token, stay as they are until that
        // listing is whole; the merge then gives the calendar its new token.
        if (tokenExpired) {
            qCInfo(googleSyncLog, "Sync token expired; listing the calendar again in full");
            mode = GoogleSyncMode::full;
            listing =
                std::make_unique<GoogleEventListing>(GoogleEventListing::followingPageZones(calendar, zone, snapshot));
            try {
                co_await fetchAllEventPages(client, *calendar.googleCalendarID, std::nullopt, *listing, stop);
            } catch (...) {
                failure = std::current_exception();
            }
        }
        if (!failure) {
            if (const auto& stated = listing->statedTimeZone()) outcome.calendarTimeZones[calendar.id] = *stated;
            try {
                // Checked before the snapshot is handed over, so that a
                // listing that cannot be merged leaves it as it is.
                listing->checkComplete();
            } catch (...) {
                failure = std::current_exception();
            }
            if (!failure) {
                GoogleSyncMergeResult merged =
                    GoogleSyncEngine::mergingListing(std::move(*listing), mode, functions_.now(), std::move(snapshot));
                snapshot = std::move(merged.snapshot);
                appendUnique(outcome.warnings, merged.warnings);
            }
        }
        listing.reset();
        if (failure) {
            if (isCancellation(failure)) std::rethrow_exception(failure);
            if (needsReconnect(failure)) std::rethrow_exception(failure);
            qCWarning(googleSyncLog, "Calendar sync failed: %s", qUtf8Printable(localizedDescription(failure)));
            outcome.failedCalendarIDs.push_back(calendar.id);
            outcome.warnings.push_back(GoogleSyncWarning::calendarFailed(calendar.id));
        }
    }

    if (outcome.failedCalendarIDs.empty()) {
        if (Account* synced = findAccount(snapshot, accountID)) {
            synced->lastSync = functions_.now();
            synced->isConnected = true;
        }
    }
    outcome.snapshot = std::move(snapshot);
    co_return outcome;
}

QCoro::Task<void> GoogleCalendarService::markAccountDisconnected(UUID accountID) {
    try {
        CalendarLoadResult loaded = co_await local_->load();
        if (Account* account = findAccount(loaded.snapshot, accountID)) {
            account->isConnected = false;
            co_await local_->save(std::move(loaded.snapshot));
        }
    } catch (const std::exception& error) {
        qCWarning(googleSyncLog, "Could not mark the account disconnected: %s",
                  qUtf8Printable(localizedDescription(error)));
    }
}

QCoro::Task<void> GoogleCalendarService::syncGoogleAccountUngated(UUID accountID, std::stop_token stop) {
    statuses_[accountID] = GoogleSyncStatus::syncing;
    std::exception_ptr failure;
    std::vector<UUID> failedCalendars;
    try {
        CalendarLoadResult loaded = co_await local_->load();
        AccountSyncOutcome outcome = co_await synchronizeAccount(accountID, std::move(loaded.snapshot), stop);
        checkCancellation(stop);
        co_await local_->save(std::move(outcome.snapshot));
        for (const auto& [calendarID, zone] : outcome.calendarTimeZones) calendarTimeZones_[calendarID] = zone;
        warnings_[accountID] = outcome.warnings;
        failedCalendars = std::move(outcome.failedCalendarIDs);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure) {
        if (failedCalendars.empty()) {
            statuses_[accountID] = GoogleSyncStatus::connected;
            co_return;
        }
        statuses_[accountID] = GoogleSyncStatus::failed;
        throw GoogleCalendarServiceError::partialSync({}, std::move(failedCalendars));
    }
    if (isCancellation(failure)) {
        statuses_[accountID] = GoogleSyncStatus::connected;
        std::rethrow_exception(failure);
    }
    if (needsReconnect(failure)) {
        statuses_[accountID] = GoogleSyncStatus::reconnectRequired;
        co_await markAccountDisconnected(accountID);
        throw GoogleCalendarServiceError::reconnectRequired(accountID);
    }
    qCWarning(googleSyncLog, "Account sync failed: %s", qUtf8Printable(localizedDescription(failure)));
    statuses_[accountID] = GoogleSyncStatus::failed;
    throw GoogleCalendarServiceError::syncFailed(accountID);
}

QCoro::Task<void> GoogleCalendarService::syncAllGoogleAccounts(std::stop_token token) {
    co_await gate_.acquire(token);
    GateHold hold(gate_);
    checkCancellation(token);
    CalendarLoadResult loaded = co_await local_->load();
    std::vector<UUID> accounts;
    for (const auto& account : loaded.snapshot.accounts)
        if (account.googleSubject) accounts.push_back(account.id);

    std::vector<UUID> failedAccounts;
    std::vector<UUID> failedCalendars;
    for (const auto& accountID : accounts) {
        checkCancellation(token);
        std::exception_ptr failure;
        try {
            co_await syncGoogleAccountUngated(accountID, token);
        } catch (...) {
            failure = std::current_exception();
        }
        if (!failure) continue;
        if (isCancellation(failure)) std::rethrow_exception(failure);
        try {
            std::rethrow_exception(failure);
        } catch (const GoogleCalendarServiceError& error) {
            if (error.kind() == GoogleCalendarServiceError::Kind::partialSync)
                appendUnique(failedCalendars, error.failedCalendarIDs());
            else
                appendUnique(failedAccounts, std::vector<UUID>{accountID});
        } catch (...) {
            appendUnique(failedAccounts, std::vector<UUID>{accountID});
        }
    }
    if (!failedAccounts.empty() || !failedCalendars.empty())
        throw GoogleCalendarServiceError::partialSync(std::move(failedAccounts), std::move(failedCalendars));
}

// --- accounts ----------------------------------------------------------------------

QCoro::Task<Account> GoogleCalendarService::connectGoogleAccount(std::stop_token token) {
    co_await gate_.acquire(token);
    GateHold hold(gate_);
    checkCancellation(token);
    CalendarLoadResult loaded = co_await local_->load();
    checkCancellation(token);

    GoogleIdentity identity;
    std::exception_ptr failure;
    try {
        identity = co_await functions_.connectGoogleIdentity(token);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        if (isCancellation(failure)) std::rethrow_exception(failure);
        qCWarning(googleSyncLog, "Google sign-in failed: %s", qUtf8Printable(localizedDescription(failure)));
        throw GoogleCalendarServiceError::authorizationFailed();
    }

    GoogleSyncMergeResult upserted = GoogleSyncEngine::upsertingAccount(identity, std::move(loaded.snapshot));
    const Account* account = nullptr;
    for (const auto& a : upserted.snapshot.accounts)
        if (a.googleSubject == identity.subject) account = &a;
    if (!account) throw GoogleCalendarServiceError::accountNotFound();
    const Account result = *account;

    bool saved = true;
    try {
        co_await local_->save(std::move(upserted.snapshot));
    } catch (...) {
        saved = false;
    }
    if (!saved) {
        try {
            co_await functions_.disconnectGoogleIdentity(identity.subject);
        } catch (...) {
        }
        statuses_.erase(result.id);
        warnings_.erase(result.id);
        throw GoogleCalendarServiceError::syncFailed(result.id);
    }
    statuses_[result.id] = GoogleSyncStatus::connected;
    co_return result;
}

QCoro::Task<Account> GoogleCalendarService::reconnectGoogleAccount(UUID accountID, std::stop_token token) {
    co_await gate_.acquire(token);
    GateHold hold(gate_);
    checkCancellation(token);
    CalendarLoadResult before = co_await local_->load();
    const Account* account = findAccount(before.snapshot, accountID);
    if (!account) throw GoogleCalendarServiceError::accountNotFound();
    const auto subject = trimmedNonEmpty(account->googleSubject);
    if (!subject) throw GoogleCalendarServiceError::authorizationFailed();

    GoogleIdentity identity;
    std::exception_ptr failure;
    try {
        identity = co_await functions_.reconnectGoogleIdentity(*subject, token);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        if (isCancellation(failure)) std::rethrow_exception(failure);
        throw GoogleCalendarServiceError::authorizationFailed();
    }

    CalendarLoadResult after = co_await local_->load();
    if (!findAccount(after.snapshot, accountID)) throw GoogleCalendarServiceError::accountNotFound();
    GoogleSyncMergeResult upserted = GoogleSyncEngine::upsertingAccount(identity, std::move(after.snapshot));
    const Account* updated = findAccount(upserted.snapshot, accountID);
    if (!updated) throw GoogleCalendarServiceError::accountNotFound();
    const Account result = *updated;
    co_await local_->save(std::move(upserted.snapshot));
    statuses_[accountID] = GoogleSyncStatus::connected;
    co_return result;
}

QCoro::Task<void> GoogleCalendarService::disconnectGoogleAccount(UUID accountID, std::stop_token token) {
    co_await gate_.acquire(token);
    GateHold hold(gate_);
    checkCancellation(token);
    CalendarLoadResult loaded = co_await local_->load();
    const Account* account = findAccount(loaded.snapshot, accountID);
    if (!account) throw GoogleCalendarServiceError::accountNotFound();

    if (const auto subject = trimmedNonEmpty(account->googleSubject)) {
        std::exception_ptr failure;
        try {
            co_await functions_.disconnectGoogleIdentity(*subject);
        } catch (...) {
            failure = std::current_exception();
        }
        if (failure) {
            if (isCancellation(failure)) std::rethrow_exception(failure);
            throw GoogleCalendarServiceError::authorizationFailed();
        }
    }

    AppSnapshot& snapshot = loaded.snapshot;
    std::set<UUID> removedCalendars;
    for (const auto& calendar : snapshot.calendars)
        if (calendar.accountID == accountID) removedCalendars.insert(calendar.id);
    std::erase_if(snapshot.accounts, [&](const Account& a) { return a.id == accountID; });
    std::erase_if(snapshot.calendars, [&](const CalendarSource& c) { return removedCalendars.contains(c.id); });
    std::erase_if(snapshot.events, [&](const CalendarEvent& e) { return removedCalendars.contains(e.calendarID); });
    std::erase_if(snapshot.googleSyncStates,
                  [&](const GoogleCalendarSyncState& s) { return removedCalendars.contains(s.calendarID); });
    co_await local_->save(std::move(snapshot));

    statuses_.erase(accountID);
    warnings_.erase(accountID);
    for (const auto& id : removedCalendars) calendarTimeZones_.erase(id);
}

} // namespace tavelo
