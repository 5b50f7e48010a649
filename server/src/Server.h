#pragma once

#include "Config.h"

#include <string>

namespace tavelo::cloud {

// Writes the owner file: {"endpoint": ..., "connectionKey": ...}, mode 0600,
// replaced atomically. Throws std::runtime_error on failure.
void writeOwnerFile(const std::string& path, const std::string& endpoint, const std::string& key);

// Opens the storage, makes the owner key at first start, listens and serves
// until SIGINT or SIGTERM, then shuts down gracefully. Gives the exit code.
int runServer(const Config& config);

} // namespace tavelo::cloud
