// The layout of the signature block appended to a signed file, shared by the
// library's reader and the tool's writer and inspector:
//
//   content | meta(3) | text(L) | length field(8) | ":ZOL" | blanks(0..8)
//
// The metadata field is the signature type, the key selector and a reserved
// byte. The length field is the base64 form of L as 4 big-endian bytes. Up to
// eight line feeds, spaces or carriage returns after the footprint are blanks
// that an editor may have added; they are not part of the block.
#pragma once

#include <cstddef>

#include "string_utils.h"

namespace block_layout {

constexpr unsigned char c_footprint[4] = {':', 'Z', 'O', 'L'};
constexpr unsigned int c_footprintSize = sizeof(c_footprint);
constexpr unsigned int c_lengthFieldSize = 8;
// Bytes after the text: the length field and the footprint.
constexpr unsigned int c_tailSize = c_lengthFieldSize + c_footprintSize;
// The last bytes of a file among which blanks are counted.
constexpr unsigned int c_blankWindow = 8;
constexpr unsigned int c_metaFieldSize = 3;
// The value that writers put in the third metadata byte. Readers ignore it.
constexpr unsigned char c_metaReserved = '0';

inline bool isTrailingBlank(unsigned char c)
{
    return c == '\n' || c == ' ' || c == '\r';
}

// The type characters a reader accepts.
inline bool isSignatureType(char type)
{
    return type == 'L' || type == 'P';
}

// The text length that a length field holds; false when the field is not the
// base64 form of exactly 4 bytes.
inline bool decodeLengthField(const char (&field)[c_lengthFieldSize], unsigned int& textLength)
{
    char decoded[6];  // up to 3 bytes for every 4 characters
    unsigned int decodedLength = 0;
    if (!base64_decode(field, c_lengthFieldSize, decoded, &decodedLength) || decodedLength != 4) {
        return false;
    }
    const auto* be = reinterpret_cast<const unsigned char*>(decoded);
    textLength = (static_cast<unsigned int>(be[0]) << 24) | (static_cast<unsigned int>(be[1]) << 16) |
                 (static_cast<unsigned int>(be[2]) << 8) | be[3];
    return true;
}

inline void encodeLengthField(unsigned int textLength, char (&field)[c_lengthFieldSize])
{
    const unsigned char be[4] = {static_cast<unsigned char>(textLength >> 24),
                                 static_cast<unsigned char>(textLength >> 16),
                                 static_cast<unsigned char>(textLength >> 8), static_cast<unsigned char>(textLength)};
    base64_encode(reinterpret_cast<const char*>(be), sizeof(be), field, c_lengthFieldSize);
}

}  // namespace block_layout
