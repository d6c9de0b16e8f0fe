// VerifyContext: RSA-2048 / SHA-256 signature checks against signatures made
// at test time by the openssl command with the development keys.
#include "verify_context.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using kzol_test::LogRecorder;

ByteBuffer bytes(const std::string& text)
{
    return ByteBuffer(text.begin(), text.end());
}

std::string vcError(const std::string& function, const std::string& text)
{
    return kzol_test::errorLine("verify_context.cpp", function, "VerifyContext::" + text);
}

class VerifyContextTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<kzol_test::TempDir>();
        // 40000 bytes: more than two of the driver's 16 KiB chunks.
        std::string content;
        for (unsigned int i = 0; i < 40000; ++i) {
            content.push_back(static_cast<char>((i * 131u + (i >> 8)) & 0xff));
        }
        s_data = bytes(content);
        kzol_test::writeFile(s_dir->file("data.bin"), content);
        kzol_test::writeFile(s_dir->file("other.bin"), content + "!");
        s_sig5 = sign('5', "data.bin");
        s_sig6 = sign('6', "data.bin");
        s_sig5Other = sign('5', "other.bin");
        const std::string ec = s_dir->file("ec.pem");
        ASSERT_EQ(0, kzol_test::run("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out '" + ec +
                                    "' 2>/dev/null && openssl pkey -in '" + ec + "' -pubout 2>/dev/null",
                                    &s_ecPublic));
        ASSERT_NE(std::string::npos, s_ecPublic.find("-----BEGIN PUBLIC KEY-----"));
    }

    static void TearDownTestSuite() { s_dir.reset(); }

    static ByteBuffer sign(char selector, const std::string& file)
    {
        const std::string out = s_dir->file(file + "." + selector + ".sig");
        const int status = kzol_test::run("openssl dgst -sha256 -sign '" + kzol_test::devPrivateKey(selector) +
                                          "' -out '" + out + "' '" + s_dir->file(file) + "'");
        EXPECT_EQ(0, status);
        const ByteBuffer sig = bytes(kzol_test::readFile(out));
        EXPECT_EQ(256u, sig.size());
        return sig;
    }

    static std::string publicKey(char selector) { return kzol_test::readFile(kzol_test::devPublicKey(selector)); }

    static ByteBuffer mpi(const ByteBuffer& raw)
    {
        ByteBuffer text;
        EXPECT_TRUE(toMPIString(raw, text));
        return text;
    }

    void SetUp() override { LogRecorder::clear(); }

    static std::unique_ptr<kzol_test::TempDir> s_dir;
    static ByteBuffer s_data, s_sig5, s_sig6, s_sig5Other;
    static std::string s_ecPublic;
};

std::unique_ptr<kzol_test::TempDir> VerifyContextTest::s_dir;
ByteBuffer VerifyContextTest::s_data, VerifyContextTest::s_sig5, VerifyContextTest::s_sig6,
    VerifyContextTest::s_sig5Other;
std::string VerifyContextTest::s_ecPublic;

TEST_F(VerifyContextTest, GoodSignatureFedInPieces)
{
    const std::vector<std::size_t> pieceSizes = {40000, 16384, 4096, 1, 7, 39999};
    for (const std::size_t pieceSize : pieceSizes) {
        SCOPED_TRACE("piece size " + std::to_string(pieceSize));
        for (const bool asMPI : {false, true}) {
            VerifyContext context;
            ASSERT_TRUE(context.loadPublicKey(publicKey('5')));
            ASSERT_TRUE(context.init());
            for (std::size_t at = 0; at < s_data.size(); at += pieceSize) {
                const std::size_t n = std::min(pieceSize, s_data.size() - at);
                ASSERT_TRUE(context.update(ByteBuffer(s_data.begin() + at, s_data.begin() + at + n)));
            }
            bool verified = false;
            EXPECT_TRUE(asMPI ? context.checkMPI(mpi(s_sig5), verified) : context.check(s_sig5, verified));
            EXPECT_TRUE(verified);
        }
    }
    EXPECT_TRUE(LogRecorder::lines().empty());
}

TEST_F(VerifyContextTest, OneCallChecksWithBothKeys)
{
    for (const char selector : {'5', '6'}) {
        const ByteBuffer& sig = selector == '5' ? s_sig5 : s_sig6;
        VerifyContext context;
        ASSERT_TRUE(context.loadKey(publicKey(selector)));
        bool raw = false;
        bool text = false;
        EXPECT_TRUE(context.checkSignature(s_data, sig, raw));
        EXPECT_TRUE(raw) << selector;
        // The one-call form starts a fresh digest each time.
        EXPECT_TRUE(context.checkSignatureMPI(s_data, mpi(sig), text));
        EXPECT_TRUE(text) << selector;
    }
    EXPECT_TRUE(LogRecorder::lines().empty());
}

TEST_F(VerifyContextTest, CarriedOutChecksThatDoNotMatch)
{
    ByteBuffer flipped = s_sig5;
    flipped[100] ^= 0x01;
    const ByteBuffer shorter(s_sig5.begin(), s_sig5.end() - 1);
    ByteBuffer longer = s_sig5;
    longer.push_back(0);
    const ByteBuffer aboveModulus(256, 0xff);
    struct Case {
        const char* name;
        char key;
        ByteBuffer signature;
    };
    const std::vector<Case> cases = {
        {"signed with the other key", '6', s_sig5},
        {"signed over other data", '5', s_sig5Other},
        {"one bit changed", '5', flipped},
        {"255 bytes", '5', shorter},
        {"257 bytes", '5', longer},
        {"value above the modulus", '5', aboveModulus},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VerifyContext context;
        ASSERT_TRUE(context.loadPublicKey(publicKey(c.key)));
        bool verified = true;
        EXPECT_TRUE(context.checkSignature(s_data, c.signature, verified));
        EXPECT_FALSE(verified);
    }
    EXPECT_TRUE(LogRecorder::lines().empty());
}

TEST_F(VerifyContextTest, FailuresLogAndLeaveTheFlag)
{
    // Each action reports the result of its last call; the flag starts true so
    // that a check that was not carried out visibly leaves it alone.
    using Action = std::function<bool(VerifyContext&, bool&)>;
    const auto ready = [](VerifyContext& c) { return c.loadPublicKey(publicKey('5')) && c.init() && c.update(s_data); };
    const std::string noKeyOrContext = vcError("check", "check(): m_pKey or m_pContext is NULL");
    const std::string loadFailed = vcError("loadKey", "loadKey(): failed to load public key");
    const std::string badMPI = vcError("checkMPI", "checkMPI(): invalid MPI format");
    const std::string sigEmpty = vcError("check", "check(): signature is empty");
    // After a failed load, a complete check finds no key.
    const auto loadThenCheck = [](const std::string& text) -> Action {
        return [text](VerifyContext& c, bool& v) {
            EXPECT_FALSE(c.loadKey(text));
            return c.init() && c.update(s_data) && c.check(s_sig5, v);
        };
    };
    struct Case {
        const char* name;
        Action action;
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"check on a new object", [](VerifyContext& c, bool& v) { return c.check(s_sig5, v); }, {noKeyOrContext}},
        {"check after loadKey without init",
         [](VerifyContext& c, bool& v) { return c.loadKey(publicKey('5')) && c.check(s_sig5, v); },
         {noKeyOrContext}},
        {"check after init without key",
         [](VerifyContext& c, bool& v) { return c.init() && c.update(s_data) && c.check(s_sig5, v); },
         {noKeyOrContext}},
        {"second loadKey fails",
         [&](VerifyContext& c, bool& v) { return c.loadKey(publicKey('5')) && loadThenCheck("no key here")(c, v); },
         {loadFailed, noKeyOrContext}},
        {"EC public key", loadThenCheck(s_ecPublic), {loadFailed, noKeyOrContext}},
        {"text without PEM", loadThenCheck("MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEA"), {loadFailed, noKeyOrContext}},
        {"empty key text", loadThenCheck(""), {loadFailed, noKeyOrContext}},
        {"update with an empty buffer", [](VerifyContext& c, bool&) { return c.init() && c.update(ByteBuffer()); },
         {vcError("update", "update(): data is empty")}},
        {"update with a null pointer", [](VerifyContext& c, bool&) { return c.init() && c.update(nullptr, 4); },
         {vcError("update", "update(): data is NULL")}},
        {"update before init", [](VerifyContext& c, bool&) { return c.update(s_data); },
         {vcError("update", "update(): m_pContext is NULL")}},
        {"check with a null pointer", [&](VerifyContext& c, bool& v) { return ready(c) && c.check(nullptr, 256, v); },
         {vcError("check", "check(): pSignature is NULL")}},
        {"null signature is tested before the context",
         [](VerifyContext& c, bool& v) { return c.check(nullptr, 256, v); },
         {vcError("check", "check(): pSignature is NULL")}},
        {"check with an empty buffer", [&](VerifyContext& c, bool& v) { return ready(c) && c.check(ByteBuffer(), v); },
         {sigEmpty}},
        {"checkMPI with 0x alone",
         [&](VerifyContext& c, bool& v) { return ready(c) && c.checkMPI(ByteBuffer{'0', 'x', '\0'}, v); },
         {sigEmpty}},
        {"checkMPI without the 0x prefix",
         [&](VerifyContext& c, bool& v) {
             ByteBuffer text = mpi(s_sig5);
             text[1] = 'X';
             return ready(c) && c.checkMPI(text, v);
         },
         {badMPI}},
        {"checkMPI with an odd number of digits",
         [&](VerifyContext& c, bool& v) { return ready(c) && c.checkMPI(ByteBuffer{'0', 'x', 'a', 'b', 'c', '\0'}, v); },
         {kzol_test::errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found"), badMPI}},
        {"checkMPI without the final NUL",
         [&](VerifyContext& c, bool& v) {
             ByteBuffer text = mpi(s_sig5);
             text.pop_back();
             return ready(c) && c.checkMPI(text, v);
         },
         {badMPI}},
        {"checkSignature with empty data",
         [](VerifyContext& c, bool& v) { return c.loadKey(publicKey('5')) && c.checkSignature(ByteBuffer(), s_sig5, v); },
         {vcError("update", "update(): data is empty")}},
        {"checkSignatureMPI with a bad text",
         [](VerifyContext& c, bool& v) {
             return c.loadKey(publicKey('5')) && c.checkSignatureMPI(s_data, bytes("0x12"), v);
         },
         {badMPI}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogRecorder::clear();
        VerifyContext context;
        bool verified = true;
        EXPECT_FALSE(c.action(context, verified));
        EXPECT_TRUE(verified);
        EXPECT_EQ(c.expected, LogRecorder::lines());
    }
}

TEST_F(VerifyContextTest, FailedUpdateAndNewInitKeepTheDigestRight)
{
    VerifyContext context;
    ASSERT_TRUE(context.loadPublicKey(publicKey('5')));
    ASSERT_TRUE(context.init());
    ASSERT_TRUE(context.update(bytes("data that init throws away")));
    // A second init starts over; an empty update adds nothing.
    ASSERT_TRUE(context.init());
    ASSERT_TRUE(context.update(ByteBuffer(s_data.begin(), s_data.begin() + 1000)));
    EXPECT_FALSE(context.update(ByteBuffer()));
    ASSERT_TRUE(context.update(s_data.data() + 1000, static_cast<unsigned int>(s_data.size() - 1000)));
    bool verified = false;
    EXPECT_TRUE(context.check(s_sig5.data(), static_cast<unsigned int>(s_sig5.size()), verified));
    EXPECT_TRUE(verified);
    EXPECT_EQ(std::vector<std::string>{vcError("update", "update(): data is empty")}, LogRecorder::lines());
}

TEST_F(VerifyContextTest, DestroyReleasesOnceAndAllowsReuse)
{
    VerifyContext context;
    ASSERT_TRUE(context.loadPublicKey(publicKey('6')));
    ASSERT_TRUE(context.init());
    context.destroy();
    context.destroy();
    context.destroyKey();
    context.destroyContext();
    bool verified = true;
    EXPECT_FALSE(context.check(s_sig6, verified));
    EXPECT_TRUE(verified);
    EXPECT_EQ(std::vector<std::string>{vcError("check", "check(): m_pKey or m_pContext is NULL")},
              LogRecorder::lines());
    // Loaded again, it checks as new; the destructor then releases both.
    verified = false;
    ASSERT_TRUE(context.loadPublicKey(publicKey('6')));
    EXPECT_TRUE(context.checkSignature(s_data, s_sig6, verified));
    EXPECT_TRUE(verified);
}

TEST_F(VerifyContextTest, HashTypeAndCleanupLeaveOpenSSLUsable)
{
    EXPECT_EQ(EVP_sha256(), hashType());
    cleanupOpenSSL();
    VerifyContext context;
    ASSERT_TRUE(context.loadPublicKey(publicKey('5')));
    bool verified = false;
    EXPECT_TRUE(context.checkSignature(s_data, s_sig5, verified));
    EXPECT_TRUE(verified);
}

}  // namespace
