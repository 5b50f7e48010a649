#pragma once

#include "google/GoogleAccessTokenProvider.h"

namespace tavelo::testing {

// Hands out one fixed access token, for talking to the Calendar stand-in.
class FixedTokenProvider final : public GoogleAccessTokenProviding {
public:
    explicit FixedTokenProvider(QString token) : token_(std::move(token)) {}
    QCoro::Task<QString> accessToken(std::optional<QString>, std::stop_token) override {
        QString token = token_;
        co_return token;
    }

private:
    QString token_;
};

} // namespace tavelo::testing
