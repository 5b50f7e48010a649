#include "Storage.h"

#include "PostgresStorage.h"
#include "SqliteStorage.h"

namespace tavelo::cloud {

std::unique_ptr<Storage> openStorage(const std::string& url) {
    if (url.starts_with("postgresql://") || url.starts_with("postgres://"))
        return std::make_unique<PostgresStorage>(url);
    const std::string prefix = "sqlite://";
    return std::make_unique<SqliteStorage>(url.starts_with(prefix) ? url.substr(prefix.size()) : url);
}

} // namespace tavelo::cloud
