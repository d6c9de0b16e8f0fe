// base64_decode over arbitrary characters, into an area of exactly the
// floor(3n/4) bytes that callers must provide: AddressSanitizer catches any
// write beyond it. Re-encoding what a padded input decoded to must give back
// the input up to its stop character, but for the bits the decoder drops.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "string_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 16) {
        return 0;
    }
    const auto n = static_cast<unsigned int>(size);
    std::vector<char> out(3 * size / 4);
    unsigned int decoded = 0;
    const bool ok = base64_decode(reinterpret_cast<const char*>(data), n, out.data(), &decoded);
    if (decoded > out.size()) {
        std::abort();
    }
    // Every group of four alphabet characters before the stop decodes and
    // re-encodes to itself.
    const unsigned int whole = decoded / 3;
    if (whole > 0) {
        std::vector<char> again(4 * whole);
        base64_encode(out.data(), 3 * whole, again.data(), static_cast<unsigned int>(again.size()));
        if (std::memcmp(again.data(), data, again.size()) != 0) {
            std::abort();
        }
    }
    if (ok && size == 0) {
        std::abort();
    }
    return 0;
}
