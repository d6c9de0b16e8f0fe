// Byte buffers and the two text codecs of the signature engine: base64 (the
// length field of a signature block) and the MPI string ("0x", two lower-case
// hexadecimal digits per byte, a terminating NUL: the stored form of a raw
// signature).
#pragma once

#include <string>
#include <vector>

// The growable byte array that carries signature texts, raw signatures, data
// to digest and device identifiers.
using ByteBuffer = std::vector<unsigned char>;

// Value of a hexadecimal digit of either case, or -1.
inline int hexValue(unsigned char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// The 64 characters of the base64 alphabet; a character's value is its
// position. Built by the library's static initialisation.
extern const std::string base64_chars;

// True for the 64 alphabet characters ('=' is not one of them).
bool isbase64(char c);

// Writes the 4*ceil(n/3) characters of the padded base64 form of `length`
// input bytes into `output`, without a terminator. When `capacity` is below
// that size nothing at all is written: a cut encoding would decode to other
// bytes.
void base64_encode(const char* input, unsigned int length, char* output, unsigned int capacity);

// Decodes up to the first character that is '=' or outside the alphabet, or to
// the end of the input. `output` must hold floor(3n/4) bytes; `*decodedLength`
// receives the number of bytes written. True only when the walk stopped at one
// of the last two input characters (padded input); unpadded input, an early
// stop and empty input are false, with what was decoded left in place.
bool base64_decode(const char* input, unsigned int length, char* output, unsigned int* decodedLength);

// data -> "0x" + hex digits + NUL (2n + 3 bytes). False, output untouched,
// for empty data.
bool toMPIString(const ByteBuffer& data, ByteBuffer& mpi);

// MPI string -> data. False for fewer than 3 bytes, a prefix other than "0x",
// a missing final NUL (all silently) and an invalid digit (logged; the bytes
// before it stay in `data`). Upper-case digits are accepted.
bool fromMPIString(const ByteBuffer& mpi, ByteBuffer& data);
