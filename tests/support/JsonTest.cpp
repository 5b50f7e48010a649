#include "support/JsonReader.h"
#include "support/EnumNames.h"
#include "support/JsonWriter.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

using namespace tavelo;

namespace {

enum class Colour { red, green };
TAVELO_STRING_ENUM(Colour, "red", "green")

struct Sample {
    int count = 0;
    std::optional<QString> label;
    std::vector<Colour> colours;
    Date when;

    void encode(JsonWriter& w) const {
        w.beginObject();
        writeField(w, "count", count);
        writeField(w, "label", label);
        writeField(w, "colours", colours);
        writeField(w, "when", when);
        w.endObject();
    }
    static Sample decode(const JsonValue& v) {
        const auto o = v.object();
        return Sample{required<int>(o, "count"), optional<QString>(o, "label"),
                      required<std::vector<Colour>>(o, "colours"), required<Date>(o, "when")};
    }
    bool operator==(const Sample&) const = default;
};

} // namespace

TEST(JsonTest, WriterEscapesEverythingJsonRequiresAndTheReaderTakesItBack) {
    const QString text = QStringLiteral("会議 \"quoted\" back\\slash\n\t\x01");
    std::string out;
    JsonWriter w(out);
    w.beginArray();
    w.string(text);
    w.number(0.1);
    w.integer(-42);
    w.null();
    w.endArray();
    EXPECT_EQ(out, "[\"会議 \\\"quoted\\\" back\\\\slash\\n\\t\\u0001\",0.1,-42,null]");

    JsonDocumentParser parser;
    JsonPath root;
    QString back;
    readJson(JsonValue(parser.parse(out).at(0), &root), back);
    EXPECT_EQ(back, text);
}

TEST(JsonTest, OptionalFieldsAreOmittedAndAcceptAbsentOrNull) {
    const Sample sample{3, std::nullopt, {Colour::green, Colour::red}, Date::fromUnixSeconds(0)};
    const std::string json = encodeJson(sample);
    EXPECT_EQ(json, R"({"count":3,"colours":["green","red"],"when":"1970-01-01T00:00:00Z"})");
    EXPECT_EQ(decodeJson<Sample>(json), sample);
    EXPECT_EQ(decodeJson<Sample>(R"({"count":3,"label":null,"colours":["green","red"],"when":"1970-01-01T00:00:00Z","x":1})"),
              sample);
}

TEST(JsonTest, StrictRulesRejectWithTheFaultAndItsPlace) {
    using Kind = JsonDecodingError::Kind;
    struct Case { const char* text; Kind kind; const char* path; };
    const Case cases[] = {
        {R"({"count":1,"colours":[],)", Kind::syntax, ""},
        {R"({"colours":[],"when":"1970-01-01T00:00:00Z"})", Kind::keyNotFound, ""},
        {R"({"count":"1","colours":[],"when":"1970-01-01T00:00:00Z"})", Kind::typeMismatch, "count"},
        {R"({"count":1.5,"colours":[],"when":"1970-01-01T00:00:00Z"})", Kind::typeMismatch, "count"},
        {R"({"count":4294967296,"colours":[],"when":"1970-01-01T00:00:00Z"})", Kind::dataCorrupted, "count"},
        {R"({"count":1,"colours":["red","blue"],"when":"1970-01-01T00:00:00Z"})", Kind::dataCorrupted, "colours[1]"},
    };
    for (const auto& c : cases) {
        try {
            decodeJson<Sample>(c.text);
            ADD_FAILURE() << "decoded: " << c.text;
        } catch (const JsonDecodingError& e) {
            EXPECT_EQ(e.kind(), c.kind) << c.text;
            EXPECT_EQ(e.path(), c.path) << c.text;
        }
    }
    // A whole number written as a float is still an integer.
    EXPECT_EQ(decodeJson<Sample>(R"({"count":2.0,"colours":[],"when":"1970-01-01T00:00:00Z"})").count, 2);
}
