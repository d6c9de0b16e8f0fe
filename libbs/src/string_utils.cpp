#include "string_utils.h"

#include <array>
#include <cstdint>

#include "log.h"

namespace {

constexpr char c_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Reverse of the alphabet: a character's value, 0xFF for every other byte.
constexpr std::array<unsigned char, 256> makeB64()
{
    std::array<unsigned char, 256> table{};
    for (auto& entry : table) {
        entry = 0xFF;
    }
    for (unsigned char i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(c_alphabet[i])] = i;
    }
    return table;
}

constexpr std::array<unsigned char, 256> b64 = makeB64();

constexpr char c_hexDigits[] = "0123456789abcdef";

}  // namespace

bool isbase64(char c)
{
    return (b64[static_cast<unsigned char>(c)] & 0x80) == 0;
}

void base64_encode(const char* input, unsigned int length, char* output, unsigned int capacity)
{
    if (length == 0 || input == nullptr || output == nullptr) {
        return;
    }
    const std::uint64_t needed = 4 * ((static_cast<std::uint64_t>(length) + 2) / 3);
    if (needed > capacity) {
        return;
    }
    const auto* in = reinterpret_cast<const unsigned char*>(input);
    const std::string& chars = base64_chars;
    unsigned int i = 0;
    char* out = output;
    for (; length - i >= 3; i += 3) {
        const unsigned char b0 = in[i];
        const unsigned char b1 = in[i + 1];
        const unsigned char b2 = in[i + 2];
        *out++ = chars[b0 >> 2];
        *out++ = chars[((b0 & 0x03) << 4) | (b1 >> 4)];
        *out++ = chars[((b1 & 0x0F) << 2) | (b2 >> 6)];
        *out++ = chars[b2 & 0x3F];
    }
    const unsigned int rest = length - i;
    if (rest == 1) {
        const unsigned char b0 = in[i];
        *out++ = chars[b0 >> 2];
        *out++ = chars[(b0 & 0x03) << 4];
        *out++ = '=';
        *out++ = '=';
    } else if (rest == 2) {
        const unsigned char b0 = in[i];
        const unsigned char b1 = in[i + 1];
        *out++ = chars[b0 >> 2];
        *out++ = chars[((b0 & 0x03) << 4) | (b1 >> 4)];
        *out++ = chars[(b1 & 0x0F) << 2];
        *out++ = '=';
    }
}

bool base64_decode(const char* input, unsigned int length, char* output, unsigned int* decodedLength)
{
    if (decodedLength == nullptr) {
        return false;
    }
    *decodedLength = 0;
    if (length == 0 || input == nullptr || output == nullptr) {
        return false;
    }
    const auto* in = reinterpret_cast<const unsigned char*>(input);
    auto* out = reinterpret_cast<unsigned char*>(output);
    unsigned int written = 0;
    unsigned char group[4] = {};
    unsigned int pending = 0;
    unsigned int pos = 0;
    for (; pos < length; ++pos) {
        const unsigned char value = b64[in[pos]];
        if ((value & 0x80) != 0) {
            break;  // '=' or a byte outside the alphabet ends the walk
        }
        group[pending++] = value;
        if (pending == 4) {
            out[written++] = static_cast<unsigned char>((group[0] << 2) | (group[1] >> 4));
            out[written++] = static_cast<unsigned char>(((group[1] & 0x0F) << 4) | (group[2] >> 2));
            out[written++] = static_cast<unsigned char>(((group[2] & 0x03) << 6) | group[3]);
            pending = 0;
        }
    }
    if (pending >= 2) {
        out[written++] = static_cast<unsigned char>((group[0] << 2) | (group[1] >> 4));
    }
    if (pending == 3) {
        out[written++] = static_cast<unsigned char>(((group[1] & 0x0F) << 4) | (group[2] >> 2));
    }
    *decodedLength = written;
    // Success only when a stop character is one of the last two characters.
    return pos < length && static_cast<std::uint64_t>(pos) + 2 >= length;
}

bool toMPIString(const ByteBuffer& data, ByteBuffer& mpi)
{
    if (data.empty()) {
        return false;
    }
    mpi.resize(2 * data.size() + 3);
    mpi[0] = '0';
    mpi[1] = 'x';
    unsigned char* out = mpi.data() + 2;
    for (unsigned char byte : data) {
        *out++ = static_cast<unsigned char>(c_hexDigits[byte >> 4]);
        *out++ = static_cast<unsigned char>(c_hexDigits[byte & 0x0F]);
    }
    *out = '\0';
    return true;
}

bool fromMPIString(const ByteBuffer& mpi, ByteBuffer& data)
{
    const std::size_t size = mpi.size();
    if (size <= 2) {
        return false;
    }
    if (mpi[0] != '0' || mpi[1] != 'x') {
        return false;
    }
    if (mpi[size - 1] != '\0') {
        return false;
    }
    data.clear();
    const std::size_t textLength = size - 1;
    data.reserve((textLength - 2) / 2);
    // The digit pairs; an odd count reaches the NUL as its last low digit,
    // which is invalid like any other non-digit.
    for (std::size_t i = 2; i < textLength; i += 2) {
        const int high = hexValue(mpi[i]);
        const int low = hexValue(mpi[i + 1]);
        if (high < 0 || low < 0) {
            KZOL_LOGE("fromMPIString(): invalid value found");
            return false;
        }
        data.push_back(static_cast<unsigned char>((high << 4) | low));
    }
    return true;
}
