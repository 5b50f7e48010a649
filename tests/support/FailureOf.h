#pragma once

// The error a piece of test code ends in, for comparing it whole.

#include "support/Error.h"

#include <gtest/gtest.h>

#include <exception>
#include <optional>

namespace tavelo::testing {

// Runs `body` and returns the `Error` it threw; any other outcome fails the
// current test and gives nothing.
template <class Error, class Body>
std::optional<Error> failureOf(Body&& body) {
    try {
        body();
    } catch (const Error& error) {
        return error;
    } catch (const std::exception& other) {
        ADD_FAILURE() << "unexpected error: " << localizedDescription(other).toStdString();
        return std::nullopt;
    }
    ADD_FAILURE() << "no error thrown";
    return std::nullopt;
}

} // namespace tavelo::testing
