// Base64 and MPI string codecs, through the library's exported functions.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "string_utils.h"
#include "test_support.h"

using kzol_test::errorLine;
using kzol_test::LogRecorder;

namespace {

// Decodes `input` into an area of exactly floor(3n/4) bytes followed by
// canaries, and checks that nothing beyond the area was touched.
bool decode(const std::string& input, std::string& out)
{
    const std::size_t area = 3 * input.size() / 4;
    std::vector<char> buffer(area + 16, '\x01');
    unsigned int written = 12345;
    const bool ok = base64_decode(input.data(), static_cast<unsigned int>(input.size()), buffer.data(), &written);
    for (std::size_t i = area; i < buffer.size(); ++i) {
        EXPECT_EQ(buffer[i], '\x01') << "decoder wrote past floor(3n/4) for " << input;
    }
    out.assign(buffer.data(), written <= area ? written : area);
    EXPECT_LE(written, area);
    return ok;
}

std::string encode(const std::string& input, unsigned int capacity)
{
    std::vector<char> buffer(capacity + 16, '\x01');
    base64_encode(input.data(), static_cast<unsigned int>(input.size()), buffer.data(), capacity);
    for (std::size_t i = capacity; i < buffer.size(); ++i) {
        EXPECT_EQ(buffer[i], '\x01') << "encoder wrote past its capacity";
    }
    std::string out(buffer.data(), capacity);
    out.erase(std::find(out.begin(), out.end(), '\x01'), out.end());
    return out;
}

ByteBuffer bytes(const std::string& s)
{
    return ByteBuffer(s.begin(), s.end());
}

}  // namespace

TEST(Base64Decode, ResultRuleAndBytes)
{
    struct Case {
        std::string input;
        std::string bytes;
        bool result;
    };
    const std::vector<Case> cases = {
        {"QQ==", "A", true},
        {"QUI=", "AB", true},
        {"QUJD", "ABC", false},                  // no stop character
        {"QUJDRA==", "ABCD", true},
        {"QUJD\n", "ABC", true},                 // stop at the last character
        {"QQ==QUJD", "A", false},                // early stop, rest unread
        {"", "", false},
        {"QUJDRA", "ABCD", false},               // unpadded
        {"QUJDREVG", "ABCDEF", false},           // eight alphabet characters
        {"QUJD REVG", "ABC", false},             // a space stops like '='
        {"QUJDRA \n", "ABCD", true},             // stop one before the last
        {std::string("QQ\x80=", 4), "A", true},  // bytes >= 0x80 stop
        {std::string("QQ\xff", 3), "A", true},
        {std::string("QQ\0=", 4), "A", true},
        {"Q", "", false},                        // one pending character gives nothing
        {"Q=", "", true},
        {"=", "", true},                         // the only character is one of the last two
        {"QUI", "AB", false},
        {"QUJDRA=X", "ABCD", true},              // the eighth character is not examined
        {"AAACAh==", std::string("\0\0\x02\x02", 4), true},  // low bits of the sixth dropped
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(decode(c.input, out), c.result) << "input: " << c.input;
        EXPECT_EQ(out, c.bytes) << "input: " << c.input;
    }
}

TEST(Base64Decode, NullArgumentsAreRefused)
{
    char out[8];
    unsigned int n = 7;
    EXPECT_FALSE(base64_decode(nullptr, 4, out, &n));
    EXPECT_EQ(n, 0u);
    EXPECT_FALSE(base64_decode("QQ==", 4, nullptr, &n));
    EXPECT_FALSE(base64_decode("QQ==", 4, out, nullptr));
}

TEST(Base64Encode, PaddingAndCapacity)
{
    struct Case {
        std::string input;
        unsigned int capacity;
        std::string output;
    };
    const std::vector<Case> cases = {
        {"A", 4, "QQ=="},
        {"AB", 4, "QUI="},
        {"ABC", 4, "QUJD"},
        {"ABCD", 8, "QUJDRA=="},
        {std::string("\0\0\x02\x02", 4), 8, "AAACAg=="},
        {std::string("\xff\xfe\xfd", 3), 4, "//79"},
        {"", 4, ""},
        {"ABCD", 7, ""},  // too small: nothing at all rather than a cut encoding
        {"A", 3, ""},
        {"ABCD", 20, "QUJDRA=="},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encode(c.input, c.capacity), c.output) << "input: " << c.input;
    }
}

TEST(Base64, RandomRoundTrip)
{
    std::mt19937 rng(20261122);
    for (unsigned int n = 1; n < 200; ++n) {
        std::string input(n, '\0');
        for (auto& ch : input) {
            ch = static_cast<char>(rng());
        }
        const std::string text = encode(input, 4 * ((n + 2) / 3));
        ASSERT_EQ(text.size(), 4 * ((n + 2) / 3));
        std::string back;
        // Padded text ends in a stop character; a multiple of three has none.
        EXPECT_EQ(decode(text, back), n % 3 != 0) << n;
        EXPECT_EQ(back, input) << n;
    }
}

TEST(Base64, IsBase64MatchesTheAlphabet)
{
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int c = 0; c < 256; ++c) {
        const bool inAlphabet = alphabet.find(static_cast<char>(c)) != std::string::npos && c != 0;
        EXPECT_EQ(isbase64(static_cast<char>(c)), inAlphabet) << c;
    }
}

TEST(MpiString, ToMpiString)
{
    ByteBuffer out = bytes("untouched");
    EXPECT_FALSE(toMPIString(ByteBuffer{}, out));
    EXPECT_EQ(out, bytes("untouched"));

    ASSERT_TRUE(toMPIString(ByteBuffer{0x00, 0xAB}, out));
    EXPECT_EQ(out, bytes(std::string("0x00ab\0", 7)));

    ASSERT_TRUE(toMPIString(ByteBuffer{0x5F}, out));  // a longer earlier content is cut
    EXPECT_EQ(out, bytes(std::string("0x5f\0", 5)));
}

TEST(MpiString, RandomRoundTrip)
{
    std::mt19937 rng(7);
    for (unsigned int n = 1; n < 600; n += 7) {
        ByteBuffer data(n);
        for (auto& b : data) {
            b = static_cast<unsigned char>(rng());
        }
        ByteBuffer mpi, back;
        ASSERT_TRUE(toMPIString(data, mpi));
        ASSERT_EQ(mpi.size(), 2 * n + 3);
        ASSERT_TRUE(fromMPIString(mpi, back));
        EXPECT_EQ(back, data);
    }
}

TEST(MpiString, FromMpiStringCases)
{
    const std::string invalid = errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found");
    struct Case {
        std::string input;
        bool result;
        ByteBuffer data;  // the output afterwards (pre-filled with 0xEE)
        bool logged;
    };
    const ByteBuffer untouched{0xEE};
    const std::vector<Case> cases = {
        {std::string("0x00ab\0", 7), true, {0x00, 0xAB}, false},
        {std::string("0x00AB\0", 7), true, {0x00, 0xAB}, false},  // upper-case digits accepted
        {std::string("0xFfeE\0", 7), true, {0xFF, 0xEE}, false},
        {std::string("0x\0", 3), true, {}, false},
        {std::string("0X00\0", 5), false, untouched, false},  // upper-case X refused silently
        {std::string("0x00", 4), false, untouched, false},    // no NUL
        {std::string("0x", 2), false, untouched, false},      // too short
        {std::string("", 0), false, untouched, false},
        {std::string("1x00\0", 5), false, untouched, false},
        {std::string("0x001\0", 6), false, {0x00}, true},     // odd digit count reaches the NUL
        {std::string("0x00g1\0", 7), false, {0x00}, true},
        {std::string("0x 0\0", 5), false, {}, true},
        {std::string("0x0\0\0", 5), false, {}, true},          // an embedded NUL is no digit
    };
    for (const auto& c : cases) {
        LogRecorder::clear();
        ByteBuffer data = untouched;
        EXPECT_EQ(fromMPIString(bytes(c.input), data), c.result) << c.input;
        EXPECT_EQ(data, c.data) << c.input;
        const std::vector<std::string> expected = c.logged ? std::vector<std::string>{invalid}
                                                           : std::vector<std::string>{};
        EXPECT_EQ(LogRecorder::lines(), expected) << c.input;
    }
}
