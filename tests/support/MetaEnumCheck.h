#pragma once

// The names QML sees are the names the files and properties hold, case for
// case and in declaration order.

#include <QMetaEnum>

#include <gtest/gtest.h>

#include <array>
#include <string_view>

namespace tavelo::testing {

template <class E, std::size_t N>
void expectMetaNamesMatch(const std::array<std::string_view, N>& names) {
    const QMetaEnum meta = QMetaEnum::fromType<E>();
    ASSERT_TRUE(meta.isValid());
    ASSERT_EQ(static_cast<std::size_t>(meta.keyCount()), N) << meta.name();
    for (std::size_t i = 0; i < N; ++i) {
        EXPECT_EQ(std::string_view(meta.key(static_cast<int>(i))), names[i]) << meta.name();
        EXPECT_EQ(meta.value(static_cast<int>(i)), static_cast<int>(i)) << meta.name();
    }
}

} // namespace tavelo::testing
