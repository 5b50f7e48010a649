#include "support/JsonWriter.h"

#include <charconv>
#include <cmath>

namespace tavelo {

void JsonWriter::separate() {
    if (needsComma_) out_.push_back(',');
}

void JsonWriter::beginObject() {
    separate();
    out_.push_back('{');
    needsComma_ = false;
}

void JsonWriter::endObject() {
    out_.push_back('}');
    needsComma_ = true;
}

void JsonWriter::beginArray() {
    separate();
    out_.push_back('[');
    needsComma_ = false;
}

void JsonWriter::endArray() {
    out_.push_back(']');
    needsComma_ = true;
}

void JsonWriter::key(std::string_view name) {
    string(name);
    out_.push_back(':');
    needsComma_ = false;
}

void JsonWriter::null() {
    separate();
    out_.append("null");
    needsComma_ = true;
}

void JsonWriter::boolean(bool v) {
    separate();
    out_.append(v ? "true" : "false");
    needsComma_ = true;
}

void JsonWriter::integer(std::int64_t v) {
    separate();
    char buffer[24];
    auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, v);
    out_.append(buffer, end);
    needsComma_ = true;
}

void JsonWriter::number(double v) {
    separate();
    if (!std::isfinite(v)) {
        // JSON has no spelling for these; callers validate before encoding.
        out_.append("null");
    } else {
        char buffer[32];
        auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, v);
        out_.append(buffer, end);
    }
    needsComma_ = true;
}

void JsonWriter::string(std::string_view s) {
    separate();
    static constexpr char kHex[] = "0123456789abcdef";
    out_.push_back('"');
    std::size_t runStart = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out_.append(s.data() + runStart, i - runStart);
        runStart = i + 1;
        switch (c) {
        case '"': out_.append("\\\""); break;
        case '\\': out_.append("\\\\"); break;
        case '\n': out_.append("\\n"); break;
        case '\r': out_.append("\\r"); break;
        case '\t': out_.append("\\t"); break;
        case '\b': out_.append("\\b"); break;
        case '\f': out_.append("\\f"); break;
        default:
            out_.append("\\u00");
            out_.push_back(kHex[c >> 4]);
            out_.push_back(kHex[c & 0x0F]);
        }
    }
    out_.append(s.data() + runStart, s.size() - runStart);
    out_.push_back('"');
    needsComma_ = true;
}

void JsonWriter::string(const QString& text) {
    const QByteArray utf8 = text.toUtf8();
    string(std::string_view(utf8.constData(), static_cast<std::size_t>(utf8.size())));
}

void JsonWriter::uuid(const UUID& u) {
    separate();
    out_.push_back('"');
    const auto at = out_.size();
    out_.resize(at + 36);
    u.write(out_.data() + at);
    out_.push_back('"');
    needsComma_ = true;
}

} // namespace tavelo
