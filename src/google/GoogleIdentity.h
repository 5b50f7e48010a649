#pragma once

// GoogleIdentity belongs to the OAuth layer ("google/GoogleOAuth.h"). The sync
// engine needs only the record, so this header gives it from there when that
// layer is present and declares the same record otherwise. Once the OAuth
// layer is always built, this header can be reduced to the include.

#if __has_include("google/GoogleOAuth.h")
#include "google/GoogleOAuth.h"
#else

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

#endif
