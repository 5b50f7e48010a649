#include "support/TextFolding.h"

#include <QLocale>

#include <gtest/gtest.h>

#include <tuple>

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

using namespace tavelo;

namespace {

QString str(std::u16string_view text) {
    return QString(reinterpret_cast<const QChar*>(text.data()), static_cast<qsizetype>(text.size()));
}

// Case and diacritic folding done on the whole string at once with ICU, as a
// yardstick for the tabulated per-character folding.
QString wholeStringFold(const QString& text) {
    UErrorCode status = U_ZERO_ERROR;
    const auto* nfd = icu::Normalizer2::getNFDInstance(status);
    const auto* nfc = icu::Normalizer2::getNFCInstance(status);
    icu::UnicodeString s(reinterpret_cast<const UChar*>(text.utf16()), static_cast<int32_t>(text.size()));
    s = nfd->normalize(s, status);
    s.foldCase();
    s = nfd->normalize(s, status);
    icu::UnicodeString stripped;
    for (int32_t i = 0; i < s.length(); i = s.moveIndex32(i, 1))
        if (u_charType(s.char32At(i)) != U_NON_SPACING_MARK) stripped.append(s.char32At(i));
    const icu::UnicodeString out = nfc->normalize(stripped, status);
    EXPECT_TRUE(U_SUCCESS(status));
    return QString(reinterpret_cast<const QChar*>(out.getBuffer()), out.length());
}

} // namespace

TEST(TextFoldingTest, SearchTextIgnoresCaseDiacriticsWidthAndSpacing) {
    const std::pair<std::u16string_view, std::u16string_view> cases[] = {
        {u"ＤＥＳＩＧＮ\u3000Ｒｅｖｉｅｗ", u"design review"}, // full-width letters, ideographic space
        {u"  Café   Crème\t\n", u"cafe creme"}, // accents, runs of blanks, ends trimmed
        {u"Cafe\u0301 cre\u0300me", u"cafe creme"}, // combining marks
        {u"a\u00A0b\u2003c\u2028d\u0085e", u"a b c d e"}, // whitespace beyond ASCII
        {u"Straße ΣΑΣ", u"strasse σασ"}, // full case folding
        {u"ガイド ｶﾞｲﾄﾞ", u"カイト カイト"}, // voiced marks, half-width kana
        {u"한국어 회의", u"한국어 회의"}, // syllables survive decomposition
        {u"\u1100\u1161", u"가"}, // conjoining jamo compose
        {u"emoji 🎉 Ｘ", u"emoji 🎉 x"}, // supplementary code points pass
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(normalizedSearchText(str(input)), str(expected)) << str(input).toStdString();
    // Without the whitespace rule, blanks stay as they are.
    EXPECT_EQ(foldedForSearch(u" Ａ\u3000 É "), QString::fromUtf16(u" a  e "));
}

TEST(TextFoldingTest, TabulatedFoldingAgreesWithWholeStringFolding) {
    const std::u16string_view samples[] = {
        u"Ærøskøbing Ǆemal ǅ Ǳ ŉ ǰ ΐ ﬃ Ḝ ẞ",
        u"Ελληνικά: Άλφα ΰ ᾳ ᾼ",
        u"Tiếng Việt có dấu: Người, Đà Nẵng",
        u"\u1100\u1161\u11A8 \uAC00\u11A8 \u1112\u116C",   // jamo and syllable plus trailing jamo
        u"e\u0301\u0327 o\u0308\u0304 a\u0328\u0301",      // stacked marks in mixed order
        u"ぱぴぷ パピプ ヴ ゔ ｳﾞ",
    };
    for (const auto sample : samples) {
        const QString text = str(sample);
        SCOPED_TRACE(text.toStdString());
        EXPECT_EQ(foldedIgnoringCaseAndDiacritics(text), wholeStringFold(text));
    }
}

TEST(TextFoldingTest, CaseFoldingFollowsTheCurrentLocaleOnlyWhenAsked) {
    const QLocale saved;
    QLocale::setDefault(QLocale(QLocale::Turkish, QLocale::Turkey));
    EXPECT_EQ(normalizedSearchText(u"IŞIK İzmir"), QString::fromUtf16(u"ısık izmir")); // the cedilla is a diacritic
    EXPECT_EQ(foldedIgnoringCaseAndDiacritics(u"I", FoldingLocale::current), QString::fromUtf16(u"ı"));
    EXPECT_EQ(foldedIgnoringCaseAndDiacritics(u"I"), QStringLiteral("i"));
    EXPECT_TRUE(containsIgnoringCaseAndDiacritics(u"Istanbul", u"ist"));
    QLocale::setDefault(saved);
}

TEST(TextFoldingTest, ContainsIgnoresCaseAndDiacriticsButNotWidth) {
    const std::tuple<std::u16string_view, std::u16string_view, bool> cases[] = {
        {u"Réunion d'équipe", u"EQUIPE", true},
        {u"cafe", u"Café", true},
        {u"ガイド", u"カイ", true},
        {u"Design review", u"design  review", false},
        {u"ＡＢＣ", u"abc", false},
        {u"abc", u"", false},
    };
    for (const auto& [haystack, needle, expected] : cases)
        EXPECT_EQ(containsIgnoringCaseAndDiacritics(str(haystack), str(needle)), expected)
            << str(haystack).toStdString() << " / " << str(needle).toStdString();
}

TEST(TextFoldingTest, BuilderEqualsNormalizingThePiecesJoinedWithBlanks) {
    const std::vector<std::vector<std::u16string_view>> inputs = {
        {u"", u"  ", u"x", u""},
        {u"e", u"\u0301tude", u"  ｃａｆé "}, // a mark opening a piece stays apart from the last one
        {u"\u1100", u"\u1161"}, // jamo of two pieces do not compose across the blank
        {u"山田 太郎", u"taro@example.com", u"会議室\u3000A"},
    };
    SearchTextBuilder builder;
    for (const auto& pieces : inputs) {
        QStringList joined;
        builder.clear();
        for (const auto piece : pieces) {
            builder.append(str(piece));
            joined << str(piece);
        }
        SCOPED_TRACE(joined.join(u'|').toStdString());
        EXPECT_EQ(str(builder.text()), normalizedSearchText(joined.join(u' ')));
    }
}
