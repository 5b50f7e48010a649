#pragma once

#include <utility>

namespace tavelo {

// The setter rule of every observable model: compare first, assign and
// report a change only when the value really differs. Callers notify when it
// returns true.
template <class T, class U>
bool assignIfChanged(T& field, U&& value) {
    if (field == value) return false;
    field = std::forward<U>(value);
    return true;
}

} // namespace tavelo
