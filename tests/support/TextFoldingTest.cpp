#include "support/TextFolding.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <tuple>

using namespace tavelo;

namespace {

QString str(std::u16string_view text) {
    return QString(reinterpret_cast<const QChar*>(text.data()), static_cast<qsizetype>(text.size()));
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
        {u"emoji 🎉 Ｘ", u"emoji 🎉 x"}, // supplementary code points pass
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(normalizedSearchText(str(input)), str(expected)) << str(input).toStdString();
    // Without the whitespace rule, blanks stay as they are.
    EXPECT_EQ(foldedForSearch(u" Ａ\u3000 É "), QString::fromUtf16(u" a  e "));
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
