// FrameReader: the report channel's frames, assembled from a byte stream that
// arrives in pieces (a non-blocking socket read whenever it is ready).
//
//   offset 0, 4 bytes    text length n (unsigned 32-bit, host byte order)
//   offset 4, n + 1      the text's bytes followed by one zero byte
//
// The reader asks for no more bytes than the current frame still lacks, so a
// stream is never read past the frame being assembled, and it holds only the
// bytes that have arrived: a declared length costs nothing until the bytes
// are there. A declared length above the reader's limit is refused as soon as
// the prefix is complete. The text is the frame up to its first zero byte, as
// the library's own receive takes it; a frame without one is refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace kzol {

class FrameReader {
public:
    enum class Result {
        More,          // the frame is not complete yet
        Frame,         // a frame is complete: takeText() hands its text over
        TooLong,       // the declared length is above the limit; nothing more may be taken
        Unterminated,  // the frame holds no zero byte; nothing more may be taken
    };

    // The longest text accepted is `maxLength` bytes, and never more than the
    // library itself accepts (0x7FFFFFFE).
    explicit FrameReader(std::uint32_t maxLength);

    // How many bytes the current frame still lacks: never 0 while taking is
    // allowed, 0 once the reader has refused a frame.
    [[nodiscard]] std::size_t wanted() const;
    // Takes `count` bytes, at most wanted(). After Frame, the next byte taken
    // starts the next frame.
    Result take(const char* bytes, std::size_t count);

    // Hands over the text of the frame that take() last completed; the
    // reader keeps no copy.
    std::string takeText() { return std::move(m_text); }
    // Whether some bytes of a frame have arrived but not the whole frame.
    [[nodiscard]] bool insideFrame() const { return m_prefixHeld > 0; }
    // The length the current (or refused) frame declares; 0 before its prefix is complete.
    [[nodiscard]] std::uint32_t declaredLength() const { return m_declared; }

private:
    static constexpr std::size_t c_prefixSize = sizeof(std::uint32_t);

    std::uint32_t m_maxLength;
    unsigned char m_prefix[c_prefixSize] = {};
    std::size_t m_prefixHeld = 0;
    std::uint32_t m_declared = 0;
    bool m_refused = false;
    std::string m_body;  // the bytes of the frame after its prefix, as they arrive
    std::string m_text;
};

}  // namespace kzol
