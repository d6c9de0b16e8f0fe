// Signature::loadFromFile over arbitrary file contents. The file lives in
// memory (memfd) and is opened by its /proc/self/fd path, as any file would be.
// A block that loads must lie inside the file: its text is the file's bytes at
// offset(), followed by one NUL, and the signed region holds at least one byte
// of content before the metadata. A text longer than any key's signature
// (16384 bytes) is held as a short stand-in instead, which the MPI check must
// judge as it judges the text itself.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "block_layout.h"
#include "fuzz_support.h"
#include "signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = fileWith(data, size);
    if (path.empty()) {
        return 0;
    }
    Signature signature;
    _ZolSigMeta meta{};
    if (!signature.loadFromFile(path, meta)) {
        return 0;
    }
    const size_t offset = signature.offset();
    // The block ends before the blanks among the last eight bytes.
    size_t blanks = 0;
    for (size_t i = size >= 8 ? size - 8 : size; i < size; ++i) {
        blanks += block_layout::isTrailingBlank(data[i]) ? 1 : 0;
    }
    const size_t declared = size - blanks - 12 - offset;
    if (declared > 16384) {
        ByteBuffer text(data + offset, data + offset + declared), raw, standInRaw;
        text.push_back('\0');
        const bool decoded = fromMPIString(text, raw);
        if (signature.size() > 16384 || offset <= 3 || decoded != fromMPIString(signature, standInRaw) ||
            (decoded && (raw.size() <= 2048 || standInRaw.size() <= 2048))) {
            std::abort();
        }
        return 0;
    }
    const size_t length = signature.size() - 1;
    if (signature.empty() || signature.back() != '\0' || offset <= 3 || offset + length + 12 > size ||
        std::memcmp(signature.data(), data + offset, length) != 0 || (meta.sigType != 'L' && meta.sigType != 'P') ||
        meta.sigType != static_cast<char>(data[offset - 3]) || meta.keyId != static_cast<char>(data[offset - 2])) {
        std::abort();
    }
    ByteBuffer tail;
    signature.composeSignature(tail);
    if (tail.size() != length + 12 || std::memcmp(tail.data(), data + offset, length) != 0 ||
        std::memcmp(tail.data() + length + 8, ":ZOL", 4) != 0 ||
        std::memcmp(data + offset + length + 8, ":ZOL", 4) != 0) {
        std::abort();
    }
    return 0;
}
