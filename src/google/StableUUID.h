#pragma once

#include "support/UUID.h"

class QString;

namespace tavelo {

// A deterministic UUID for a name inside a namespace, so that the same Google
// object gets the same local id on every machine and after every full sync.
// The value is compared without regard to case. The algorithm (two FNV-1a 64
// hashes, version 5 and variant bits set) is a storage format: changing it
// would give every stored Google object a new id.
UUID stableUUID(const UUID& nameSpace, const QString& value);

} // namespace tavelo
