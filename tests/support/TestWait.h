#pragma once

// Waiting in tests for something the event loop brings about, instead of
// turning the loop a fixed number of times.

#include <functional>

namespace tavelo::testing {

// Runs the event loop until `condition` holds or `timeoutMs` have passed;
// answers whether it holds.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000);

} // namespace tavelo::testing
