#pragma once

#include <QLoggingCategory>

namespace tavelo {
// Keychain and token failures of the Google side. Tokens are never logged.
Q_DECLARE_LOGGING_CATEGORY(googleSyncLog)
} // namespace tavelo
