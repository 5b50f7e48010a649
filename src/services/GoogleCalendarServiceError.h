#pragma once

#include "services/GoogleMutation.h"
#include "support/Error.h"
#include "support/UUID.h"

#include <optional>
#include <vector>

namespace tavelo {

// Failures of the Google calendar service, in the words shown to the user.
class GoogleCalendarServiceError final : public Error, public GoogleMutationPartialFailure {
public:
    enum class Kind { reconnectRequired, syncFailed, partialSync, partialOperation, accountNotFound, authorizationFailed };

    static GoogleCalendarServiceError reconnectRequired(UUID accountID) {
        GoogleCalendarServiceError e(Kind::reconnectRequired);
        e.accountID_ = accountID;
        return e;
    }
    static GoogleCalendarServiceError syncFailed(UUID accountID) {
        GoogleCalendarServiceError e(Kind::syncFailed);
        e.accountID_ = accountID;
        return e;
    }
    static GoogleCalendarServiceError partialSync(std::vector<UUID> failedAccountIDs, std::vector<UUID> failedCalendarIDs) {
        GoogleCalendarServiceError e(Kind::partialSync);
        e.failedAccountIDs_ = std::move(failedAccountIDs);
        e.failedCalendarIDs_ = std::move(failedCalendarIDs);
        return e;
    }
    static GoogleCalendarServiceError partialOperation(GoogleMutationOperation operation,
                                                       std::vector<GoogleMutationDestination> remainingDestinations,
                                                       std::vector<GoogleMutationDestination> conflictingDestinations,
                                                       GoogleMutationFailureCause cause) {
        GoogleCalendarServiceError e(Kind::partialOperation);
        e.operation_ = operation;
        e.remainingDestinations_ = std::move(remainingDestinations);
        e.conflictingDestinations_ = std::move(conflictingDestinations);
        e.cause_ = cause;
        return e;
    }
    static GoogleCalendarServiceError accountNotFound() { return GoogleCalendarServiceError(Kind::accountNotFound); }
    static GoogleCalendarServiceError authorizationFailed() { return GoogleCalendarServiceError(Kind::authorizationFailed); }

    Kind kind() const { return kind_; }
    const std::optional<UUID>& accountID() const { return accountID_; }
    const std::vector<UUID>& failedAccountIDs() const { return failedAccountIDs_; }
    const std::vector<UUID>& failedCalendarIDs() const { return failedCalendarIDs_; }
    // GoogleMutationPartialFailure
    bool isPartialMutation() const override { return kind_ == Kind::partialOperation; }
    GoogleMutationOperation operation() const override { return operation_; }
    const std::vector<GoogleMutationDestination>& remainingDestinations() const override { return remainingDestinations_; }
    const std::vector<GoogleMutationDestination>& conflictingDestinations() const override { return conflictingDestinations_; }
    GoogleMutationFailureCause cause() const override { return cause_; }

    std::optional<QString> errorDescription() const override;
    const char* domain() const override { return "GoogleCalendarServiceError"; }
    int code() const override { return static_cast<int>(kind_); }

    bool operator==(const GoogleCalendarServiceError& other) const {
        return kind_ == other.kind_ && accountID_ == other.accountID_ && failedAccountIDs_ == other.failedAccountIDs_ &&
               failedCalendarIDs_ == other.failedCalendarIDs_ && operation_ == other.operation_ &&
               remainingDestinations_ == other.remainingDestinations_ &&
               conflictingDestinations_ == other.conflictingDestinations_ && cause_ == other.cause_;
    }

private:
    explicit GoogleCalendarServiceError(Kind kind) : kind_(kind) {}

    Kind kind_;
    std::optional<UUID> accountID_;
    std::vector<UUID> failedAccountIDs_;
    std::vector<UUID> failedCalendarIDs_;
    GoogleMutationOperation operation_ = GoogleMutationOperation::create;
    std::vector<GoogleMutationDestination> remainingDestinations_;
    std::vector<GoogleMutationDestination> conflictingDestinations_;
    GoogleMutationFailureCause cause_ = GoogleMutationFailureCause::requestFailure;
};

} // namespace tavelo
