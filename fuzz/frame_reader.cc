// kzol listen's frame assembly (FrameReader) over an arbitrary stream, handed
// over in pieces of varying size as a non-blocking socket hands it over. The
// first input byte sets the frame limit (1 byte to 64 KiB) and the piece
// sizes. Checked against the stream parsed whole: the same texts, then the
// same refusal (or none); never more asked for than the frame lacks.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "frame_reader.h"

namespace {

using Result = kzol::FrameReader::Result;

// The stream parsed whole: its complete frames' texts, and how it ends.
Result parseWhole(const std::string& stream, std::uint32_t limit, std::vector<std::string>& texts)
{
    std::size_t at = 0;
    while (stream.size() - at >= sizeof(std::uint32_t)) {
        std::uint32_t length = 0;
        std::memcpy(&length, stream.data() + at, sizeof(length));
        if (length > limit) {
            return Result::TooLong;
        }
        const std::size_t body = at + sizeof(length);
        if (stream.size() - body < static_cast<std::size_t>(length) + 1) {
            return Result::More;
        }
        const std::size_t end = stream.find('\0', body);
        if (end == std::string::npos || end > body + length) {
            return Result::Unterminated;
        }
        texts.push_back(stream.substr(body, end - body));
        at = body + length + 1;
    }
    return Result::More;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const unsigned int shape = data[0];
    const std::uint32_t limit = 1U << (shape % 17);
    const std::string stream(reinterpret_cast<const char*>(data) + 1, size - 1);

    std::vector<std::string> expected;
    const Result ending = parseWhole(stream, limit, expected);

    kzol::FrameReader reader(limit);
    std::vector<std::string> texts;
    Result last = Result::More;
    std::size_t at = 0, piece = 1 + (shape >> 4);
    while (at < stream.size() && reader.wanted() != 0) {
        const std::size_t wanted = reader.wanted();
        if (wanted > std::max<std::size_t>(sizeof(std::uint32_t), static_cast<std::size_t>(limit) + 1)) {
            __builtin_trap();
        }
        const std::size_t n = std::min({wanted, piece, stream.size() - at});
        last = reader.take(stream.data() + at, n);
        at += n;
        if (last == Result::Frame) {
            texts.push_back(reader.takeText());
            last = Result::More;
        }
        piece = piece * 7 % 251 + 1;
    }
    if (texts != expected || last != ending) {
        __builtin_trap();
    }
    return 0;
}
