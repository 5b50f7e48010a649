#pragma once

// The schema, as numbered steps shared by every storage implementation.
// The statements are plain SQL that SQLite and PostgreSQL both accept.

#include <vector>

namespace tavelo::cloud {

struct Migration {
    int version;
    std::vector<const char*> statements;
};

const std::vector<Migration>& migrations();

} // namespace tavelo::cloud
