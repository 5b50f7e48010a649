#pragma once

// The calendar records' enumerations. Their cases are known to the meta-object
// system, so QML shows and compares them by name; the same names are their
// JSON strings.

#include "support/EnumNames.h"

#include <QtCore/qobjectdefs.h>

namespace tavelo {

// Inline, so the enumerations keep their `tavelo::` names while this
// namespace carries their meta-object.
inline namespace records {
Q_NAMESPACE

enum class EventKind { event, task };
Q_ENUM_NS(EventKind)
TAVELO_STRING_ENUM(EventKind, "event", "task")

enum class EventRecurrence { daily, weekly, monthly };
Q_ENUM_NS(EventRecurrence)
TAVELO_STRING_ENUM(EventRecurrence, "daily", "weekly", "monthly")

enum class Availability { busy, free };
Q_ENUM_NS(Availability)
TAVELO_STRING_ENUM(Availability, "busy", "free")

enum class EventVisibility { normal, privateTitle, privateDetails };
Q_ENUM_NS(EventVisibility)
TAVELO_STRING_ENUM(EventVisibility, "normal", "privateTitle", "privateDetails")

enum class GuestStatus { accepted, tentative, declined, pending };
Q_ENUM_NS(GuestStatus)
TAVELO_STRING_ENUM(GuestStatus, "accepted", "tentative", "declined", "pending")

enum class AccountKind { work, personal, family };
Q_ENUM_NS(AccountKind)
TAVELO_STRING_ENUM(AccountKind, "work", "personal", "family")

enum class BusyBlockScope { all, workOnly, custom };
Q_ENUM_NS(BusyBlockScope)
TAVELO_STRING_ENUM(BusyBlockScope, "all", "workOnly", "custom")

} // namespace records
} // namespace tavelo
