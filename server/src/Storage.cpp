#include "Storage.h"

#include "SqliteStorage.h"

namespace tavelo::cloud {

std::unique_ptr<Storage> openStorage(const std::string& url) {
    if (url.starts_with("postgresql://") || url.starts_with("postgres://"))
        throw StorageError("PostgreSQL storage is not built in this version");
    const std::string prefix = "sqlite://";
    return std::make_unique<SqliteStorage>(url.starts_with(prefix) ? url.substr(prefix.size()) : url);
}

} // namespace tavelo::cloud
