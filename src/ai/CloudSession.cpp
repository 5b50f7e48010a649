#include "ai/CloudSession.h"

#include "ai/CloudJson.h"

namespace tavelo {

TaveloSession TaveloSession::decode(const JsonValue& value) {
    const auto o = value.object();
    return TaveloSession{
        .userID = required<QString>(o, "userID"),
        .email = optional<QString>(o, "email"),
        .kind = required<Kind>(o, "kind"),
        .capabilities = optional<std::vector<QString>>(o, "capabilities"),
    };
}

void TaveloSession::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "userID", userID);
    writeField(w, "email", email);
    writeField(w, "kind", kind);
    writeField(w, "capabilities", capabilities);
    w.endObject();
}

TaveloSession TaveloSession::fromCloudJson(std::string_view text) { return decodeJson<TaveloSession>(text); }

AIAccount AIAccount::decode(const JsonValue& value) {
    const auto o = value.object();
    return AIAccount{
        .connected = required<bool>(o, "connected"),
        .email = optional<QString>(o, "email"),
        .plan = optional<QString>(o, "plan"),
    };
}

void AIAccount::encode(JsonWriter& w) const {
    w.beginObject();
    writeField(w, "connected", connected);
    writeField(w, "email", email);
    writeField(w, "plan", plan);
    w.endObject();
}

AIAccount AIAccount::fromCloudJson(std::string_view text) { return decodeJson<AIAccount>(text); }

CloudStringMap CloudStringMap::decode(const JsonValue& value) {
    const auto o = value.object();
    CloudStringMap map;
    for (auto field : o.raw()) {
        JsonPath path{o.path(), field.key, -1};
        QString text;
        readJson(JsonValue(field.value, &path), text);
        map.values[QString::fromUtf8(field.key.data(), static_cast<qsizetype>(field.key.size()))] = text;
    }
    return map;
}

CloudStringMap CloudStringMap::fromCloudJson(std::string_view text) { return decodeJson<CloudStringMap>(text); }

std::optional<CloudStringMap> CloudStringMap::tryFromCloudJson(std::string_view text) {
    try {
        return fromCloudJson(text);
    } catch (const JsonDecodingError&) {
        return std::nullopt;
    }
}

} // namespace tavelo
