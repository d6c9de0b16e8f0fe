// Base64 and MPI string codecs, through the library's exported functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "string_utils.h"
#include "test_support.h"

// Decodes into an area of exactly floor(3n/4) bytes followed by canaries that
// must stay untouched.
static bool decode(const std::string& input, std::string& out)
{
    const std::size_t area = 3 * input.size() / 4;
    std::vector<char> buffer(area + 16, '\x01');
    unsigned int written = 12345;
    const bool ok = base64_decode(input.data(), static_cast<unsigned int>(input.size()), buffer.data(), &written);
    EXPECT_EQ(std::count(buffer.begin() + area, buffer.end(), '\x01'), 16) << "wrote past floor(3n/4): " << input;
    EXPECT_LE(written, area) << input;
    out.assign(buffer.data(), std::min<std::size_t>(written, area));
    return ok;
}

// Encodes into `capacity` bytes followed by canaries that must stay untouched.
static std::string encode(const std::string& input, unsigned int capacity)
{
    std::vector<char> buffer(capacity + 16, '\x01');
    base64_encode(input.data(), static_cast<unsigned int>(input.size()), buffer.data(), capacity);
    EXPECT_EQ(std::count(buffer.begin() + capacity, buffer.end(), '\x01'), 16) << "wrote past capacity: " << input;
    return std::string(buffer.begin(), std::find(buffer.begin(), buffer.begin() + capacity, '\x01'));
}

TEST(Base64, DecodeResultRuleAndBytes)
{
    struct Case { std::string input, bytes; bool result; };
    const std::vector<Case> cases = {
        {"QQ==", "A", true},
        {"QUI=", "AB", true},
        {"QUJDRA", "ABCD", false},               // unpadded
        {"QUJD\n", "ABC", true},                 // stop at the last character
        {"QUJDRA=X", "ABCD", true},              // stop one before the last; the last is not examined
        {"QQ==QUJD", "A", false},                // early stop, rest unread
        {"QQ\x80" "A", "A", true},               // bytes >= 0x80 stop
        {"", "", false},
        {"Q", "", false},                        // one pending character gives nothing
        {"AAACAh==", std::string("\0\0\x02\x02", 4), true},  // low bits of the sixth dropped
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(decode(c.input, out), c.result) << "input: " << c.input;
        EXPECT_EQ(out, c.bytes) << "input: " << c.input;
    }
    char out[8];
    unsigned int n = 7;
    EXPECT_FALSE(base64_decode(nullptr, 4, out, &n) || base64_decode("QQ==", 4, nullptr, &n) ||
                 base64_decode("QQ==", 4, out, nullptr));
    EXPECT_EQ(n, 0u);
}

TEST(Base64, EncodePaddingAndCapacity)
{
    struct Case { std::string input; unsigned int capacity; std::string output; };
    const std::vector<Case> cases = {
        {"A", 4, "QQ=="},
        {std::string("\xff\xfe\xfd", 3), 4, "//79"},
        {"ABCD", 20, "QUJDRA=="},
        {"", 4, ""},
        {"ABCD", 7, ""},  // too small: nothing at all rather than a cut encoding
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encode(c.input, c.capacity), c.output) << "input: " << c.input;
    }
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(isbase64(static_cast<char>(c)), c != 0 && std::strchr(alphabet, c) != nullptr) << c;
    }
}

TEST(Codecs, RandomRoundTrips)
{
    std::mt19937 rng(20261122);
    for (unsigned int n = 1; n < 300; ++n) {
        std::string input(n, '\0');
        std::generate(input.begin(), input.end(), [&] { return static_cast<char>(rng()); });
        const ByteBuffer raw(input.begin(), input.end());
        std::string back;
        // Padded text ends in a stop character; a multiple of three has none.
        EXPECT_EQ(decode(encode(input, 4 * ((n + 2) / 3)), back), n % 3 != 0) << n;
        EXPECT_EQ(back, input) << n;
        ByteBuffer mpi(700, 'Z'), data;  // an earlier, longer content is replaced, NUL included
        ASSERT_TRUE(toMPIString(raw, mpi));
        EXPECT_EQ(std::string(mpi.begin(), mpi.end()), kzol_test::mpiText(input) + '\0') << n;
        ASSERT_TRUE(fromMPIString(mpi, data));
        EXPECT_EQ(data, raw) << n;
    }
}

TEST(MpiString, RefusalsAndTheirLog)
{
    ByteBuffer out{0xEE};
    EXPECT_TRUE(!toMPIString(ByteBuffer{}, out) && out == ByteBuffer{0xEE}) << "empty data gives no MPI string";

    const auto bad = kzol_test::errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found");
    struct Case { std::string input; bool result; ByteBuffer data; bool logged; };  // data pre-filled with 0xEE
    const std::vector<Case> cases = {
        {std::string("0xFfeE\0", 7), true, {0xFF, 0xEE}, false},  // upper-case digits accepted
        {std::string("0X00\0", 5), false, {0xEE}, false},        // upper-case X refused silently
        {std::string("0x00", 4), false, {0xEE}, false},          // no NUL
        {std::string("1x00\0", 5), false, {0xEE}, false},
        {std::string("0x001\0", 6), false, {0x00}, true},        // odd digit count reaches the NUL
        {std::string("0x00g1\0", 7), false, {0x00}, true},       // the bytes before the bad digit stay
        {std::string("0x0\0\0", 5), false, {}, true},            // an embedded NUL is no digit
    };
    for (const auto& c : cases) {
        kzol_test::LogRecorder::clear();
        ByteBuffer data{0xEE};
        EXPECT_EQ(fromMPIString(ByteBuffer(c.input.begin(), c.input.end()), data), c.result) << c.input;
        EXPECT_EQ(data, c.data) << c.input;
        EXPECT_EQ(kzol_test::LogRecorder::lines(), std::vector<std::string>(c.logged ? 1 : 0, bad)) << c.input;
    }
}
