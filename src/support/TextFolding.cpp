#include "support/TextFolding.h"

#include <QLocale>

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace tavelo {

namespace {

// Folding is context-free per code point apart from the final canonical
// composition, so it is tabulated: each code point maps to its folded text,
// computed once with ICU on first use of its 256-code-point block. A string
// is folded by concatenating the entries and, only when some entry may
// combine with what precedes it, composing the whole result once more.
//
// Per code point: width mapping (the <wide> and <narrow> compatibility
// decompositions), canonical decomposition, full case folding, canonical
// decomposition again, removal of the non-spacing marks, canonical
// composition.

struct Normalizers {
    const icu::Normalizer2* nfd = nullptr;
    const icu::Normalizer2* nfc = nullptr;
    const icu::Normalizer2* nfkd = nullptr;
};

const Normalizers& normalizers() {
    static const Normalizers instance = [] {
        UErrorCode status = U_ZERO_ERROR;
        Normalizers n;
        n.nfd = icu::Normalizer2::getNFDInstance(status);
        n.nfc = icu::Normalizer2::getNFCInstance(status);
        n.nfkd = icu::Normalizer2::getNFKDInstance(status);
        if (U_FAILURE(status)) std::abort(); // ICU data missing: nothing can work
        return n;
    }();
    return instance;
}

icu::UnicodeString foldCodePoint(UChar32 c, bool width) {
    const Normalizers& n = normalizers();
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString text(c);
    if (width) {
        const int type = u_getIntPropertyValue(c, UCHAR_DECOMPOSITION_TYPE);
        if (type == U_DT_WIDE || type == U_DT_NARROW) {
            icu::UnicodeString mapped;
            if (n.nfkd->getRawDecomposition(c, mapped)) text = mapped;
        }
    }
    text = n.nfd->normalize(text, status);
    text.foldCase(U_FOLD_CASE_DEFAULT);
    text = n.nfd->normalize(text, status);
    icu::UnicodeString stripped;
    for (int32_t i = 0; i < text.length();) {
        const UChar32 ch = text.char32At(i);
        if (u_charType(ch) != U_NON_SPACING_MARK) stripped.append(ch);
        i += U16_LENGTH(ch);
    }
    icu::UnicodeString result = n.nfc->normalize(stripped, status);
    return U_FAILURE(status) ? icu::UnicodeString(c) : result;
}

enum EntryFlag : std::uint8_t {
    kSeparator = 1, // folds to whitespace
    kComposes = 2,  // may combine with the preceding character
};

std::uint8_t flagsOf(const icu::UnicodeString& folded) {
    const icu::Normalizer2* nfc = normalizers().nfc;
    std::uint8_t flags = 0;
    bool allSpace = folded.length() > 0;
    for (int32_t i = 0; i < folded.length();) {
        const UChar32 ch = folded.char32At(i);
        if (!u_isUWhiteSpace(ch)) allSpace = false;
        if (!nfc->hasBoundaryBefore(ch)) flags |= kComposes;
        i += U16_LENGTH(ch);
    }
    if (allSpace) flags |= kSeparator;
    return flags;
}

struct Entry {
    std::uint16_t offset;
    std::uint8_t length;
    std::uint8_t flags;
};

struct Block {
    std::array<Entry, 256> entries;
    std::u16string pool;
};

class FoldTable {
public:
    explicit FoldTable(bool width) : width_(width) {}

    bool width() const { return width_; }

    const Block& block(unsigned high) {
        const Block* block = blocks_[high].load(std::memory_order_acquire);
        return block ? *block : build(high);
    }

private:
    const Block& build(unsigned high) {
        auto block = std::make_unique<Block>();
        for (unsigned low = 0; low < 256; ++low) {
            const UChar32 c = static_cast<UChar32>(high << 8 | low);
            // A surrogate reaching the table is unpaired and stays as it is.
            const icu::UnicodeString folded = U16_IS_SURROGATE(c) ? icu::UnicodeString(static_cast<UChar>(c))
                                                                  : foldCodePoint(c, width_);
            Entry& entry = block->entries[low];
            entry.offset = static_cast<std::uint16_t>(block->pool.size());
            entry.length = static_cast<std::uint8_t>(folded.length());
            entry.flags = U16_IS_SURROGATE(c) ? 0 : flagsOf(folded);
            block->pool.append(reinterpret_cast<const char16_t*>(folded.getBuffer()),
                               static_cast<std::size_t>(folded.length()));
        }
        const Block* expected = nullptr;
        // Several threads may build the same block; the first one stored wins.
        if (blocks_[high].compare_exchange_strong(expected, block.get(), std::memory_order_acq_rel))
            return *block.release();
        return *expected;
    }

    bool width_;
    // Built blocks live as long as the program.
    std::array<std::atomic<const Block*>, 256> blocks_{};
};

FoldTable& searchTable() {
    static FoldTable table(true);
    return table;
}

FoldTable& caseAndDiacriticsTable() {
    static FoldTable table(false);
    return table;
}

bool isTurkic(FoldingLocale locale) {
    if (locale == FoldingLocale::none) return false;
    const QLocale::Language language = QLocale().language();
    return language == QLocale::Turkish || language == QLocale::Azerbaijani;
}

// Bit c is set for the ASCII whitespace characters c: tab to carriage return, space.
constexpr std::uint64_t kAsciiWhitespace = 0x3E00ULL | (1ULL << 32);

// Appends the folding of `text` to `out`. With `split`, whitespace only
// raises `pendingBlank`, and a blank is written before the next folded
// character if `out` is not empty: leading and repeated whitespace vanish, and
// the caller drops a trailing one.
struct Folder {
    FoldTable& table;
    bool turkic;
    bool split;
    bool pendingBlank = false;
    bool needsComposition = false;

    void fold(std::u16string& out, QStringView text) {
        const auto* p = reinterpret_cast<const char16_t*>(text.utf16());
        const std::size_t n = static_cast<std::size_t>(text.size());
        // Written through a cursor. Room is kept for a blank and one unit per
        // remaining input unit; a longer folding makes more room first.
        const std::size_t used = out.size();
        out.resize(used + 2 * n);
        char16_t* w = out.data() + used;
        auto makeRoom = [&](std::size_t units, std::size_t remaining) {
            const auto at = static_cast<std::size_t>(w - out.data());
            if (at + units + 2 * remaining > out.size()) {
                out.resize(at + units + 2 * remaining);
                w = out.data() + at;
            }
        };

        const Block* block = nullptr;
        unsigned blockHigh = 0x100; // no block
        icu::UnicodeString supplementary;
        for (std::size_t i = 0; i < n;) {
            const char16_t c = p[i];
            if (c < 0x80) {
                ++i;
                if (split && c <= u' ' && ((kAsciiWhitespace >> c) & 1)) {
                    if (w != out.data()) pendingBlank = true;
                    continue;
                }
                if (pendingBlank) {
                    *w++ = u' ';
                    pendingBlank = false;
                }
                if (static_cast<unsigned>(c - u'A') < 26u)
                    *w++ = turkic && c == u'I' ? u'\u0131' : static_cast<char16_t>(c + 32);
                else
                    *w++ = c;
                continue;
            }

            const char16_t* folded;
            std::size_t length;
            std::uint8_t flags;
            if (U16_IS_LEAD(c) && i + 1 < n && U16_IS_TRAIL(p[i + 1])) {
                supplementary = foldCodePoint(U16_GET_SUPPLEMENTARY(c, p[i + 1]), table.width());
                i += 2;
                folded = reinterpret_cast<const char16_t*>(supplementary.getBuffer());
                length = static_cast<std::size_t>(supplementary.length());
                flags = flagsOf(supplementary);
            } else {
                ++i;
                if ((c >> 8) != blockHigh) {
                    blockHigh = c >> 8;
                    block = &table.block(blockHigh);
                }
                const Entry entry = block->entries[c & 0xFF];
                folded = block->pool.data() + entry.offset;
                length = entry.length;
                flags = entry.flags;
            }
            if (length == 0) continue;
            if (split && (flags & kSeparator)) {
                if (w != out.data()) pendingBlank = true;
                continue;
            }
            if (length > 1) makeRoom(length + 1, n - i);
            if (pendingBlank) {
                *w++ = u' ';
                pendingBlank = false;
            }
            if (length == 1)
                *w++ = *folded;
            else
                w = std::copy_n(folded, length, w);
            if (flags & kComposes) needsComposition = true;
        }
        out.resize(static_cast<std::size_t>(w - out.data()));
    }
};

void compose(std::u16string& text) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString source(false, reinterpret_cast<const UChar*>(text.data()),
                                    static_cast<int32_t>(text.size()));
    const icu::UnicodeString composed = normalizers().nfc->normalize(source, status);
    if (U_FAILURE(status)) return;
    text.assign(reinterpret_cast<const char16_t*>(composed.getBuffer()), static_cast<std::size_t>(composed.length()));
}

QString toQString(const std::u16string& text) {
    return QString(reinterpret_cast<const QChar*>(text.data()), static_cast<qsizetype>(text.size()));
}

std::u16string fold(QStringView text, FoldTable& table, bool turkic, bool split) {
    std::u16string out;
    out.reserve(static_cast<std::size_t>(text.size()));
    Folder folder{table, turkic, split};
    folder.fold(out, text);
    if (folder.needsComposition) compose(out);
    return out;
}

} // namespace

QString foldedForSearch(QStringView text) {
    return toQString(fold(text, searchTable(), isTurkic(FoldingLocale::current), false));
}

QString normalizedSearchText(QStringView text) {
    return toQString(fold(text, searchTable(), isTurkic(FoldingLocale::current), true));
}

QString foldedIgnoringCaseAndDiacritics(QStringView text, FoldingLocale locale) {
    return toQString(fold(text, caseAndDiacriticsTable(), isTurkic(locale), false));
}

bool containsIgnoringCaseAndDiacritics(QStringView haystack, QStringView needle) {
    const std::u16string foldedNeedle = fold(needle, caseAndDiacriticsTable(), false, false);
    if (foldedNeedle.empty()) return false;
    return fold(haystack, caseAndDiacriticsTable(), false, false).find(foldedNeedle) != std::u16string::npos;
}

SearchTextBuilder::SearchTextBuilder() : turkic_(isTurkic(FoldingLocale::current)) {}

void SearchTextBuilder::clear() {
    text_.clear();
    pendingBlank_ = false;
    needsComposition_ = false;
}

void SearchTextBuilder::append(QStringView piece) {
    // Pieces are joined with a blank, which folds into the whitespace rule.
    Folder folder{searchTable(), turkic_, true, pendingBlank_ || !text_.empty()};
    folder.fold(text_, piece);
    pendingBlank_ = folder.pendingBlank;
    needsComposition_ = needsComposition_ || folder.needsComposition;
}

std::u16string_view SearchTextBuilder::text() {
    if (needsComposition_) {
        compose(text_);
        needsComposition_ = false;
    }
    return text_;
}

} // namespace tavelo
