#pragma once

// What the files of AppStore share among themselves; not for other code.

#include "models/CalendarEvent.h"

#include <QLoggingCategory>

#include <vector>

namespace tavelo {

Q_DECLARE_LOGGING_CATEGORY(lcAppStore)

namespace appstore {

// Freeing a workspace's worth of events takes the GUI thread milliseconds;
// a large list goes to a pool thread to be freed there. Its texts are shared
// with copies on this thread only through atomic counts.
void releaseInBackground(std::vector<CalendarEvent>&& events);

} // namespace appstore
} // namespace tavelo
