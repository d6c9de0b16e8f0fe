// fromMPIString over arbitrary bytes. What it accepts, toMPIString must write
// back as the same text in lower case.
#include <cctype>
#include <cstdint>
#include <cstdlib>

#include "string_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const ByteBuffer input(data, data + size);
    ByteBuffer decoded;
    if (!fromMPIString(input, decoded)) {
        return 0;
    }
    if (decoded.size() != (size - 3) / 2 || (size - 3) % 2 != 0) {
        std::abort();
    }
    ByteBuffer again;
    if (decoded.empty()) {
        if (toMPIString(decoded, again)) {
            std::abort();
        }
        return 0;
    }
    if (!toMPIString(decoded, again) || again.size() != size) {
        std::abort();
    }
    for (size_t i = 0; i < size; ++i) {
        if (again[i] != static_cast<unsigned char>(std::tolower(input[i]))) {
            std::abort();
        }
    }
    return 0;
}
