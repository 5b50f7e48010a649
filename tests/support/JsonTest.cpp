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

JsonDecodingError decodeFailure(std::string_view text) {
    try {
        decodeJson<Sample>(text);
    } catch (const JsonDecodingError& e) {
        return e;
    }
    ADD_FAILURE() << "decoded without error: " << text;
    return JsonDecodingError(JsonDecodingError::Kind::syntax, "", "");
}

} // namespace

TEST(JsonTest, WriterEscapesEverythingJsonRequiresAndKeepsUnicode) {
    std::string out;
    JsonWriter w(out);
    w.beginArray();
    w.string(QStringLiteral("会議 \"quoted\" back\\slash\n\t\x01"));
    w.number(0.1);
    w.integer(-42);
    w.null();
    w.endArray();
    EXPECT_EQ(out, "[\"会議 \\\"quoted\\\" back\\\\slash\\n\\t\\u0001\",0.1,-42,null]");

    // What the writer produces, the strict reader takes back unchanged.
    JsonDocumentParser parser;
    JsonPath root;
    QString back;
    readJson(JsonValue(parser.parse(out).at(0), &root), back);
    EXPECT_EQ(back, QStringLiteral("会議 \"quoted\" back\\slash\n\t\x01"));
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
    struct Case {
        const char* text;
        JsonDecodingError::Kind kind;
        const char* path;
    };
    const Case cases[] = {
        {R"({"count":1,"colours":[],)", JsonDecodingError::Kind::syntax, ""},
        {R"({"colours":[],"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::keyNotFound, ""},
        {R"({"count":null,"colours":[],"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::keyNotFound, "count"},
        {R"({"count":"1","colours":[],"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::typeMismatch, "count"},
        {R"({"count":1.5,"colours":[],"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::typeMismatch, "count"},
        {R"({"count":4294967296,"colours":[],"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::dataCorrupted, "count"},
        {R"({"count":1,"colours":["red","blue"],"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::dataCorrupted, "colours[1]"},
        {R"({"count":1,"colours":[],"when":"1970-01-01T00:00:00.000Z"})", JsonDecodingError::Kind::dataCorrupted, "when"},
        {R"({"count":1,"colours":{},"when":"1970-01-01T00:00:00Z"})", JsonDecodingError::Kind::typeMismatch, "colours"},
        {R"([1,2])", JsonDecodingError::Kind::typeMismatch, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto error = decodeFailure(c.text);
        EXPECT_EQ(error.kind(), c.kind);
        EXPECT_EQ(error.path(), c.path);
    }
    // A whole number written as a float is still an integer.
    EXPECT_EQ(decodeJson<Sample>(R"({"count":2.0,"colours":[],"when":"1970-01-01T00:00:00Z"})").count, 2);
}
