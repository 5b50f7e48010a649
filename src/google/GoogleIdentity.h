#pragma once

#include <QString>

#include <optional>

namespace tavelo {

// Who a Google account is: the OpenID subject is the stable key of a Google
// account throughout the program.
struct GoogleIdentity {
    QString subject;
    QString email;
    std::optional<QString> name;

    bool operator==(const GoogleIdentity&) const = default;
};

} // namespace tavelo
