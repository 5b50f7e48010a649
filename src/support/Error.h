#pragma once

#include <QString>

#include <exception>
#include <optional>
#include <string>

namespace tavelo {

// Base of every typed failure in Tavelo. An error either carries its own
// user-facing text (`errorDescription`) or shows the generic one, which names
// the error's domain and code the way the platform would.
class Error : public std::exception {
public:
    ~Error() override = default;

    // The error's own text, or nothing when it has none.
    virtual std::optional<QString> errorDescription() const { return std::nullopt; }
    // A stable name of the error type, such as "SQLitePersistenceError".
    virtual const char* domain() const = 0;
    // A number that tells the cases of one domain apart.
    virtual int code() const { return 0; }

    const char* what() const noexcept override;

private:
    mutable std::string what_;
};

// A cancelled task. No layer maps it to a domain error; callers drop it.
class CancellationError final : public Error {
public:
    const char* domain() const override { return "CancellationError"; }
};

// The text shown for any failure: the error's own description, or the
// generic text with domain and code.
QString localizedDescription(const std::exception& error);
QString localizedDescription(std::exception_ptr error);

bool isCancellation(std::exception_ptr error);

} // namespace tavelo
