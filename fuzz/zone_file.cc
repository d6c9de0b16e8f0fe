// SecureZoneContext over arbitrary zone files. Checked without scanning the
// way the reader does:
// - a file that begins with two numbers of at most nine digits (each may be
//   signed), separated and perhaps preceded by blanks, is read as exactly
//   those two numbers;
// - a file that holds one such number and blanks only is not read (the type
//   was never read), and neither is a file without a single digit;
// - isIsolatedContainer() answers whether the file was read with type 1.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "securezone_context.h"

namespace {

// Moves `at` over spaces, tabs and newlines; answers how many there were.
size_t skipBlanks(const std::string& text, size_t& at)
{
    const size_t start = at;
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t' || text[at] == '\n')) {
        ++at;
    }
    return at - start;
}

// A sign or none, then one to nine digits and no more, at `at`: its value,
// with `at` moved past it.
bool readNumber(const std::string& text, size_t& at, std::int32_t& value)
{
    size_t end = at;
    const bool negative = end < text.size() && text[end] == '-';
    if (end < text.size() && (text[end] == '-' || text[end] == '+')) {
        ++end;
    }
    std::int32_t magnitude = 0;
    size_t digits = 0;
    for (; end < text.size() && text[end] >= '0' && text[end] <= '9'; ++end, ++digits) {
        if (digits == 9) {
            return false;
        }
        magnitude = magnitude * 10 + (text[end] - '0');
    }
    if (digits == 0) {
        return false;
    }
    value = negative ? -magnitude : magnitude;
    at = end;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = fileWith(data, size);
    if (path.empty()) {
        return 0;
    }
    SecureZoneContext zone(path.c_str());
    SecureZoneContext::ContainerContent content{-7, -7};
    const bool read = zone.getContainerInformation(content);

    const std::string text(reinterpret_cast<const char*>(data), size);
    std::int32_t level = 0, type = 0;
    size_t at = 0;
    skipBlanks(text, at);
    if (readNumber(text, at, level)) {
        const size_t gap = skipBlanks(text, at);
        if (at == text.size() && read) {
            std::abort();  // one number: the type was taken from nowhere
        }
        if (gap > 0 && readNumber(text, at, type) && (!read || content.level != level || content.type != type)) {
            std::abort();
        }
    }
    if (read && text.find_first_of("0123456789") == std::string::npos) {
        std::abort();
    }
    if (zone.isIsolatedContainer() != (read && content.type == 1)) {
        std::abort();
    }
    return 0;
}
