#pragma once

#include <QString>
#include <QStringView>

#include <string>
#include <string_view>

namespace tavelo {

// Text folding for search and for comparisons that ignore case and
// diacritics. Folding for case uses full Unicode case folding ("ß" -> "ss");
// folding for diacritics decomposes canonically and drops the non-spacing
// marks ("é" -> "e", "ガ" -> "カ"); folding for width maps full-width and
// half-width forms to their ordinary forms ("Ａ" -> "A", the ideographic space
// -> " ", "ｶ" -> "カ"). The result is recomposed canonically. All functions
// are safe to call from any thread.

enum class FoldingLocale {
    none,    // locale-independent
    current, // QLocale() at the time of the call (Turkish and Azeri fold "I" to "ı")
};

// Case-, diacritic- and width-insensitive folding in the current locale.
// Whitespace is folded but kept as it is.
QString foldedForSearch(QStringView text);

// `foldedForSearch`, then split on any Unicode whitespace with empty pieces
// dropped and joined with one blank: "  Ｃａｆé\u3000 ｒｅｖｉｅｗ " -> "cafe review".
QString normalizedSearchText(QStringView text);

// Case- and diacritic-insensitive folding; width is kept.
QString foldedIgnoringCaseAndDiacritics(QStringView text, FoldingLocale locale = FoldingLocale::none);

// Whether `needle` occurs in `haystack` when both ignore case and diacritics,
// with no locale. A needle that folds to nothing occurs nowhere.
bool containsIgnoringCaseAndDiacritics(QStringView haystack, QStringView needle);

// Builds the normalized search text of several pieces joined with blanks,
// reusing its buffer between texts. Equal to `normalizedSearchText` of the
// pieces joined with " ". The locale is read once, at construction.
class SearchTextBuilder {
public:
    SearchTextBuilder();

    void clear();
    void append(QStringView piece);
    // The normalized text so far. Valid until the next call on the builder.
    std::u16string_view text();

private:
    std::u16string text_;
    bool pendingBlank_ = false;
    bool needsComposition_ = false;
    bool turkic_ = false;
};

} // namespace tavelo
