#include "frame_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kzol {

namespace {

// The library's own bound: a frame of this length and its zero byte still
// fit a 32-bit size.
constexpr std::uint32_t c_largestLength = 0x7FFFFFFEU;

}  // namespace

FrameReader::FrameReader(std::uint32_t maxLength) : m_maxLength(std::min(maxLength, c_largestLength))
{
}

std::size_t FrameReader::wanted() const
{
    if (m_refused) {
        return 0;
    }
    if (m_prefixHeld < c_prefixSize) {
        return c_prefixSize - m_prefixHeld;
    }
    // The text and its zero byte: at most m_maxLength + 1, checked when the prefix completed.
    return static_cast<std::size_t>(m_declared) + 1 - m_body.size();
}

FrameReader::Result FrameReader::take(const char* bytes, std::size_t count)
{
    if (m_prefixHeld < c_prefixSize) {
        std::memcpy(m_prefix + m_prefixHeld, bytes, count);
        m_prefixHeld += count;
        if (m_prefixHeld < c_prefixSize) {
            return Result::More;
        }
        std::memcpy(&m_declared, m_prefix, sizeof(m_declared));
        if (m_declared > m_maxLength) {
            m_refused = true;
            return Result::TooLong;
        }
        return Result::More;
    }
    if (m_body.capacity() < m_body.size() + count) {
        // Grown by doubling, as a string would, but never past the declared frame.
        const std::size_t frameSize = static_cast<std::size_t>(m_declared) + 1;
        m_body.reserve(std::min(frameSize, std::max(2 * m_body.capacity(), m_body.size() + count)));
    }
    m_body.append(bytes, count);
    if (m_body.size() <= m_declared) {
        return Result::More;
    }
    const std::size_t end = m_body.find('\0');
    if (end == std::string::npos) {
        m_refused = true;
        return Result::Unterminated;
    }
    m_body.resize(end);
    m_text = std::move(m_body);
    m_body = std::string();  // a peer between frames holds no buffer
    m_prefixHeld = 0;
    m_declared = 0;
    return Result::Frame;
}

}  // namespace kzol
