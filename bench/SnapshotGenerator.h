#pragma once

#include "models/AppSnapshot.h"

#include <cstdint>

namespace tavelo::bench {

// Builds a realistic workspace: three accounts (two Google, one local), six
// calendars, tags with rules, Google sync states and `eventCount` events with
// Japanese and English titles, notes, guests, Google ids and etags, some
// recurring and some with a Meet link, plus generated busy blocks mirroring a
// share of the busy events. The same seed always gives the same snapshot.
AppSnapshot generateSnapshot(std::size_t eventCount, std::uint64_t seed = 20260105);

} // namespace tavelo::bench
