#pragma once

#include "models/AppSnapshot.h"
#include "models/CalendarEvent.h"
#include "services/GoogleMutation.h"
#include "support/EnumNames.h"
#include "support/Error.h"
#include "support/UUID.h"

#include <QString>

#include <cstddef>
#include <optional>
#include <variant>
#include <vector>

namespace tavelo {

// What a browser authentication is for: a new account, or the account with
// `reconnectAccountID` again.
struct GoogleAuthenticationRequest {
    std::optional<UUID> reconnectAccountID;

    static GoogleAuthenticationRequest connect() { return {}; }
    static GoogleAuthenticationRequest reconnect(UUID accountID) { return {accountID}; }
    bool isReconnect() const { return reconnectAccountID.has_value(); }
    bool operator==(const GoogleAuthenticationRequest&) const = default;
};

// The Google actions of the store, for their messages and retries.
enum class GoogleStoreAction { connect, sync, reconnect, disconnect };

// What the retry action of the message bar does. The cases keep their
// declaration order; `kind()` names the case held.
struct StoreRetryOperation {
    struct SetCalendarVisibility {
        UUID id;
        bool isVisible = true;
        bool operator==(const SetCalendarVisibility&) const = default;
    };
    struct UpdatePreferences {
        AppPreferences preferences;
        bool operator==(const UpdatePreferences&) const = default;
    };
    struct IncludePastSearchResults {
        bool isIncluded = false;
        bool operator==(const IncludePastSearchResults&) const = default;
    };
    struct SetTaskCompletion {
        UUID eventID;
        bool isCompleted = false;
        bool operator==(const SetTaskCompletion&) const = default;
    };
    struct SyncGoogleAccount {
        UUID accountID;
        bool operator==(const SyncGoogleAccount&) const = default;
    };
    struct ReconnectGoogleAccount {
        UUID accountID;
        bool operator==(const ReconnectGoogleAccount&) const = default;
    };
    struct GoogleMutation {
        PendingGoogleMutation mutation;
        bool operator==(const GoogleMutation&) const = default;
    };
    struct Load {
        bool operator==(const Load&) const = default;
    };
    struct Persist {
        bool operator==(const Persist&) const = default;
    };
    struct ConnectGoogleAccount {
        bool operator==(const ConnectGoogleAccount&) const = default;
    };
    struct SyncAllGoogleAccounts {
        bool operator==(const SyncAllGoogleAccounts&) const = default;
    };

    enum class Kind {
        setCalendarVisibility,
        updatePreferences,
        includePastSearchResults,
        setTaskCompletion,
        syncGoogleAccount,
        reconnectGoogleAccount,
        googleMutation,
        load,
        persist,
        connectGoogleAccount,
        syncAllGoogleAccounts,
    };

    using Value = std::variant<SetCalendarVisibility, UpdatePreferences, IncludePastSearchResults, SetTaskCompletion,
                               SyncGoogleAccount, ReconnectGoogleAccount, GoogleMutation, Load, Persist,
                               ConnectGoogleAccount, SyncAllGoogleAccounts>;
    static_assert(std::variant_size_v<Value> == static_cast<std::size_t>(Kind::syncAllGoogleAccounts) + 1);

    Value value;

    static StoreRetryOperation setCalendarVisibility(UUID id, bool isVisible) { return {SetCalendarVisibility{id, isVisible}}; }
    static StoreRetryOperation updatePreferences(AppPreferences preferences) { return {UpdatePreferences{std::move(preferences)}}; }
    static StoreRetryOperation includePastSearchResults(bool isIncluded) { return {IncludePastSearchResults{isIncluded}}; }
    static StoreRetryOperation setTaskCompletion(UUID eventID, bool isCompleted) { return {SetTaskCompletion{eventID, isCompleted}}; }
    static StoreRetryOperation syncGoogleAccount(UUID accountID) { return {SyncGoogleAccount{accountID}}; }
    static StoreRetryOperation reconnectGoogleAccount(UUID accountID) { return {ReconnectGoogleAccount{accountID}}; }
    static StoreRetryOperation googleMutation(PendingGoogleMutation mutation) { return {GoogleMutation{std::move(mutation)}}; }
    static StoreRetryOperation load() { return {Load{}}; }
    static StoreRetryOperation persist() { return {Persist{}}; }
    static StoreRetryOperation connectGoogleAccount() { return {ConnectGoogleAccount{}}; }
    static StoreRetryOperation syncAllGoogleAccounts() { return {SyncAllGoogleAccounts{}}; }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    template <class Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }

    bool operator==(const StoreRetryOperation&) const = default;
};

// Refusals of the store's own operations, with the text the user sees.
class StoreOperationError final : public Error {
public:
    enum class Kind { invalidEdit, managedBusyBlock };

    explicit StoreOperationError(Kind kind) : kind_(kind) {}
    static StoreOperationError invalidEdit() { return StoreOperationError(Kind::invalidEdit); }
    static StoreOperationError managedBusyBlock() { return StoreOperationError(Kind::managedBusyBlock); }

    Kind kind() const { return kind_; }
    // Always present: every case has its own words.
    QString message() const;

    std::optional<QString> errorDescription() const override { return message(); }
    const char* domain() const override { return "StoreOperationError"; }
    int code() const override { return static_cast<int>(kind_); }

private:
    Kind kind_;
};

} // namespace tavelo
