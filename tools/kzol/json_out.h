// A small writer of flat JSON objects for the commands' --json output: string,
// integer, boolean and null members and arrays of strings, in insertion order,
// printed on one line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kzol {

// `bytes` as a JSON string literal with its quotes. Valid UTF-8 is kept; in
// text that is not valid UTF-8 every byte of 0x80 or above stands for the
// character of the same number (\u0080 to \u00ff), so raw bytes stay visible.
std::string jsonString(const std::string& bytes);

class JsonObject {
public:
    JsonObject& add(const std::string& key, const std::string& value);
    JsonObject& add(const std::string& key, const char* value);
    JsonObject& addNumber(const std::string& key, std::uint64_t value);
    JsonObject& addBool(const std::string& key, bool value);
    JsonObject& add(const std::string& key, const std::vector<std::string>& values);
    JsonObject& addNull(const std::string& key);
    // "{...}" without a line feed.
    std::string text() const;

private:
    JsonObject& member(const std::string& key, const std::string& json);
    std::string m_members;
};

}  // namespace kzol
