#include "json_out.h"

#include <cstdio>

namespace kzol {

namespace {

// Length of the UTF-8 sequence at `i`, or 0 when it is not a valid one
// (overlong forms, surrogates and values above U+10FFFF are invalid).
std::size_t utf8SequenceLength(const std::string& s, std::size_t i)
{
    const auto byte = [&s](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = byte(i);
    std::size_t length;
    unsigned int value;
    if (c < 0x80) {
        return 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
        value = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        value = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        value = c & 0x07;
    } else {
        return 0;
    }
    if (i + length > s.size()) {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            return 0;
        }
        value = (value << 6) | (byte(i + k) & 0x3F);
    }
    if ((length == 3 && (value < 0x800 || (value >= 0xD800 && value <= 0xDFFF))) ||
        (length == 4 && (value < 0x10000 || value > 0x10FFFF))) {
        return 0;
    }
    return length;
}

bool isValidUtf8(const std::string& s)
{
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t length = utf8SequenceLength(s, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

}  // namespace

std::string jsonString(const std::string& bytes)
{
    const bool utf8 = isValidUtf8(bytes);
    std::string out = "\"";
    for (unsigned char c : bytes) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20 || c == 0x7F || (c >= 0x80 && !utf8)) {
                char escape[7];
                std::snprintf(escape, sizeof(escape), "\\u%04x", c);
                out += escape;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
    return out;
}

JsonObject& JsonObject::member(const std::string& key, const std::string& json)
{
    if (!m_members.empty()) {
        m_members += ", ";
    }
    m_members += jsonString(key) + ": " + json;
    return *this;
}

JsonObject& JsonObject::add(const std::string& key, const std::string& value)
{
    return member(key, jsonString(value));
}

JsonObject& JsonObject::add(const std::string& key, const char* value)
{
    return member(key, jsonString(value));
}

JsonObject& JsonObject::addNumber(const std::string& key, std::uint64_t value)
{
    return member(key, std::to_string(value));
}

JsonObject& JsonObject::addBool(const std::string& key, bool value)
{
    return member(key, value ? "true" : "false");
}

JsonObject& JsonObject::add(const std::string& key, const std::vector<std::string>& values)
{
    std::string array = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        array += (i == 0 ? "" : ", ") + jsonString(values[i]);
    }
    return member(key, array + "]");
}

JsonObject& JsonObject::addNull(const std::string& key)
{
    return member(key, "null");
}

std::string JsonObject::text() const
{
    return "{" + m_members + "}";
}

}  // namespace kzol
