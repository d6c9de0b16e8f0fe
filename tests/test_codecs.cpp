// Base64 and MPI string codecs, through the library's exported functions.

#include <random>

#include "string_utils.h"
#include "test_support.h"

// Both codecs write into an area of the documented size (floor(3n/4) bytes
// for the decoder, the capacity for the encoder) followed by canaries that
// must stay untouched.
static bool decode(const std::string& input, std::string& out)
{
    const std::size_t area = 3 * input.size() / 4;
    std::vector<char> buffer(area + 16, '\x01');
    unsigned int written = 12345;
    const bool ok = base64_decode(input.data(), static_cast<unsigned int>(input.size()), buffer.data(), &written);
    EXPECT_EQ(std::count(buffer.begin() + area, buffer.end(), '\x01'), 16) << input;
    EXPECT_LE(written, area) << input;
    out.assign(buffer.data(), std::min<std::size_t>(written, area));
    return ok;
}

static std::string encode(const std::string& input, unsigned int capacity)
{
    std::vector<char> buffer(capacity + 16, '\x01');
    base64_encode(input.data(), static_cast<unsigned int>(input.size()), buffer.data(), capacity);
    EXPECT_EQ(std::count(buffer.begin() + capacity, buffer.end(), '\x01'), 16) << input;
    return std::string(buffer.begin(), std::find(buffer.begin(), buffer.begin() + capacity, '\x01'));
}

TEST(Base64, KnownTextsRoundTripsAndTheDecodeResultRule)
{
    // encodes: `bytes` also encode to `text` (into exactly its size).
    struct Case {
        std::string text, bytes;
        bool result, encodes;
    };
    const std::vector<Case> cases = {
        {"QQ==", "A", true, true},
        {"QUI=", "AB", true, true},
        {"//79", "\xff\xfe\xfd", false, true},            // no stop character
        {"QUJDRA", "ABCD", false, false},                 // unpadded
        {"QUJD\n", "ABC", true, false},                   // stop at the last character
        {"QUJDRA=X", "ABCD", true, false},                // stop one before the last; the last is not examined
        {"QQ==QUJD", "A", false, false},                  // early stop, rest unread
        {std::string("QQ\x80") + "A", "A", true, false},  // bytes >= 0x80 stop
        {"Q", "", false, false},                          // one pending character gives nothing
        {"AAACAh==", std::string("\0\0\x02\x02", 4), true, false},  // low bits of the sixth dropped
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string out;
        EXPECT_EQ(decode(c.text, out), c.result);
        EXPECT_EQ(out, c.bytes);
        if (c.encodes) {
            EXPECT_EQ(encode(c.bytes, static_cast<unsigned int>(c.text.size())), c.text);
        }
    }
    EXPECT_EQ(encode("ABCD", 7), "") << "too small: nothing at all rather than a cut encoding";
    char buffer[8];
    unsigned int written = 7;
    EXPECT_FALSE(base64_decode(nullptr, 4, buffer, &written)) << "no input";
    EXPECT_FALSE(base64_decode("QQ==", 4, nullptr, &written)) << "no output";
    EXPECT_FALSE(base64_decode("QQ==", 4, buffer, nullptr)) << "no length";
    EXPECT_EQ(written, 0u);
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(isbase64(static_cast<char>(c)), alphabet.find(static_cast<char>(c)) != std::string::npos) << c;
    }
    // Random data through both codecs and back. Empty data gives no MPI string
    // and leaves the earlier content; a new one replaces it, NUL included.
    std::mt19937 rng(20261122);
    for (unsigned int n = 0; n < 300; ++n) {
        ByteBuffer raw(n), mpi(700, 'Z'), data;
        std::generate(raw.begin(), raw.end(), [&] { return static_cast<unsigned char>(rng()); });
        std::string back, input(raw.begin(), raw.end());
        // Padded text ends in a stop character; a multiple of three has none.
        SCOPED_TRACE(n);
        EXPECT_EQ(decode(encode(input, 4 * ((n + 2) / 3)), back), n % 3 != 0);
        EXPECT_EQ(back, input);
        EXPECT_EQ(toMPIString(raw, mpi), n > 0);
        EXPECT_EQ(fromMPIString(mpi, data), n > 0);
        EXPECT_EQ(std::string(mpi.begin(), mpi.end()), n ? kzol_test::mpiText(input) + '\0' : std::string(700, 'Z'));
        EXPECT_EQ(data, raw) << n;
    }
}

TEST(MpiString, RefusalsAndTheirLog)
{
    const auto bad = kzol_test::errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found");
    struct Case {
        std::string input;
        bool result;
        ByteBuffer data;
        bool logged;
    };  // data pre-filled with 0xEE
    const std::vector<Case> cases = {
        {std::string("0xFfeE\0", 7), true, {0xFF, 0xEE}, false},  // upper-case digits accepted
        {std::string("0X00\0", 5), false, {0xEE}, false},         // upper-case X refused silently
        {std::string("0x00", 4), false, {0xEE}, false},           // no NUL
        {std::string("1x00\0", 5), false, {0xEE}, false},
        {std::string("0x001\0", 6), false, {0x00}, true},   // odd digit count reaches the NUL
        {std::string("0x00g1\0", 7), false, {0x00}, true},  // the bytes before the bad digit stay
        {std::string("0x0\0\0", 5), false, {}, true},       // an embedded NUL is no digit
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        kzol_test::clearLog();
        ByteBuffer data{0xEE};
        EXPECT_EQ(fromMPIString(ByteBuffer(c.input.begin(), c.input.end()), data), c.result);
        EXPECT_EQ(data, c.data);
        EXPECT_EQ(kzol_test::loggedLines(), kzol_test::Lines(c.logged ? 1 : 0, bad));
    }
}
