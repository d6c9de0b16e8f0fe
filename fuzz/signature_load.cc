// Signature::loadFromFile over arbitrary file contents. The file lives in
// memory (memfd) and is opened by its /proc/self/fd path, as any file would be.
// A block that loads must lie inside the file: its text is the file's bytes at
// offset(), followed by one NUL, and the signed region holds at least one byte
// of content before the metadata.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "signature.h"

namespace {

struct MemFile {
    int fd = memfd_create("kzol-fuzz", 0);
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    ~MemFile() { close(fd); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemFile file;
    if (file.fd < 0 || ftruncate(file.fd, 0) != 0 || pwrite(file.fd, data, size, 0) != static_cast<ssize_t>(size)) {
        return 0;
    }
    Signature signature;
    _ZolSigMeta meta{};
    if (!signature.loadFromFile(file.path, meta)) {
        return 0;
    }
    const size_t offset = signature.offset();
    const size_t length = signature.size() - 1;
    if (signature.empty() || signature.back() != '\0' || offset <= 3 || offset + length + 12 > size ||
        std::memcmp(signature.data(), data + offset, length) != 0 ||
        (meta.sigType != 'L' && meta.sigType != 'P') || meta.sigType != static_cast<char>(data[offset - 3]) ||
        meta.keyId != static_cast<char>(data[offset - 2])) {
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
