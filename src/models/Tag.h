#pragma once

#include "support/EnumNames.h"
#include "support/UUID.h"

#include <QString>

#include <optional>
#include <variant>
#include <vector>

namespace tavelo {

class JsonWriter;
class JsonValue;

// What a tag rule looks at. Coded as {"titleContains":{"_0":"text"}} or
// {"calendarEquals":{"_0":"UUID"}}.
struct TagRuleCondition {
    struct TitleContains {
        QString text;
        bool operator==(const TitleContains&) const = default;
    };
    struct CalendarEquals {
        UUID calendarID;
        bool operator==(const CalendarEquals&) const = default;
    };

    std::variant<TitleContains, CalendarEquals> value;

    static TagRuleCondition titleContains(QString text) { return {TitleContains{std::move(text)}}; }
    static TagRuleCondition calendarEquals(UUID id) { return {CalendarEquals{id}}; }

    const TitleContains* asTitleContains() const { return std::get_if<TitleContains>(&value); }
    const CalendarEquals* asCalendarEquals() const { return std::get_if<CalendarEquals>(&value); }

    bool operator==(const TagRuleCondition&) const = default;
    void encode(JsonWriter& w) const;
    static TagRuleCondition decode(const JsonValue& v);
};

// The two kinds a rule editor offers.
enum class TagRuleConditionKind { title, calendar };

struct TagRule {
    UUID id;
    TagRuleCondition condition;

    bool operator==(const TagRule&) const = default;
    void encode(JsonWriter& w) const;
    static TagRule decode(const JsonValue& v);
};

struct Tag {
    UUID id;
    QString name;
    QString colorHex;
    int sortOrder = 0;
    std::optional<int> weeklyTargetMinutes;
    bool warnsWhenExceeded = false;
    std::vector<TagRule> rules;

    bool operator==(const Tag&) const = default;
    void encode(JsonWriter& w) const;
    static Tag decode(const JsonValue& v);
};

} // namespace tavelo
