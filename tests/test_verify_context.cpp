// VerifyContext on its own: the call orders, refusals and life cycle that the
// verification driver never produces. Matching and mismatching signatures and
// the MPI texts are proven end to end through BSContext in test_verify.cpp.
#include "verify_context.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using kzol_test::LogRecorder;

std::string vcError(const std::string& function, const std::string& text)
{
    return kzol_test::errorLine("verify_context.cpp", function, "VerifyContext::" + function + "(): " + text);
}

// A development key, data signed with its private half by the openssl
// command, and an EC public key (parsed by OpenSSL, but not RSA).
struct Material {
    std::string key = kzol_test::readFile(kzol_test::devPublicKey('5'));
    std::string text = "data signed at test time";
    ByteBuffer data{text.begin(), text.end()};
    std::string raw = kzol_test::opensslSign(text, kzol_test::devPrivateKey('5'));
    ByteBuffer signature{raw.begin(), raw.end()};
    std::string ecKey;
    Material()
    {
        kzol_test::run("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 2>/dev/null"
                       " | openssl pkey -pubout 2>/dev/null", &ecKey);
    }
};

const Material& m()
{
    static const Material material;
    return material;
}

}  // namespace

TEST(VerifyContext, FailuresLogAndLeaveTheFlag)
{
    ASSERT_NE(m().ecKey.find("-----BEGIN PUBLIC KEY-----"), std::string::npos);
    const std::string noKey = vcError("check", "m_pKey or m_pContext is NULL");
    const std::string loadFailed = vcError("loadKey", "failed to load public key");
    // Each action answers its last call. The flag starts true, so a check that
    // was not carried out visibly leaves it alone.
    struct Case {
        const char* name;
        std::function<bool(VerifyContext&, bool&)> action;
        std::vector<std::string> log;
    };
    const std::vector<Case> cases = {
        {"check on a new object", [](VerifyContext& c, bool& v) { return c.check(m().signature, v); }, {noKey}},
        {"check after loadKey without init",
         [](VerifyContext& c, bool& v) { return c.loadKey(m().key) && c.check(m().signature, v); }, {noKey}},
        {"check after init without key",
         [](VerifyContext& c, bool& v) { return c.init() && c.update(m().data) && c.check(m().signature, v); },
         {noKey}},
        // A failed load releases the key loaded before: no check with it.
        {"second loadKey fails",
         [](VerifyContext& c, bool& v) {
             EXPECT_TRUE(c.loadKey(m().key));
             EXPECT_FALSE(c.loadKey("no key here"));
             return c.init() && c.update(m().data) && c.check(m().signature, v);
         },
         {loadFailed, noKey}},
        {"EC key refused",
         [](VerifyContext& c, bool& v) { return c.loadKey(m().ecKey) || c.checkSignature(m().data, m().signature, v); },
         {loadFailed, noKey}},
        {"update before init", [](VerifyContext& c, bool&) { return c.update(m().data); },
         {vcError("update", "m_pContext is NULL")}},
        {"update with a null pointer", [](VerifyContext& c, bool&) { return c.init() && c.update(nullptr, 4); },
         {vcError("update", "data is NULL")}},
        {"one call with empty data",
         [](VerifyContext& c, bool& v) {
             return c.loadKey(m().key) && c.checkSignature(ByteBuffer(), m().signature, v);
         },
         {vcError("update", "data is empty")}},
        {"MPI text without its NUL",
         [](VerifyContext& c, bool& v) { return c.loadKey(m().key) && c.checkSignatureMPI(m().data, {'0', 'x'}, v); },
         {vcError("checkMPI", "invalid MPI format")}},
        // The null signature is refused before the context is looked at.
        {"check with a null pointer", [](VerifyContext& c, bool& v) { return c.check(nullptr, 256, v); },
         {vcError("check", "pSignature is NULL")}},
    };
    for (const Case& c : cases) {
        LogRecorder::clear();
        VerifyContext context;
        bool verified = true;
        EXPECT_FALSE(c.action(context, verified)) << c.name;
        EXPECT_TRUE(verified) << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
    }
}

TEST(VerifyContext, DestroyTwiceThenReuse)
{
    EXPECT_EQ(hashType(), EVP_sha256());
    VerifyContext context;
    ASSERT_TRUE(context.loadPublicKey(m().key));
    ASSERT_TRUE(context.init() && context.update(ByteBuffer{'x'}));
    context.destroy();
    context.destroy();
    context.destroyKey();
    context.destroyContext();
    cleanupOpenSSL();
    LogRecorder::clear();
    bool verified = true;
    EXPECT_FALSE(context.check(m().signature, verified));
    EXPECT_TRUE(verified);
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{vcError("check", "m_pKey or m_pContext is NULL")});
    // Loaded again it checks as new, with a fresh digest for each one-call check.
    ByteBuffer mpi;
    ASSERT_TRUE(context.loadKey(m().key) && toMPIString(m().signature, mpi));
    for (int round = 0; round < 2; ++round) {
        verified = false;
        EXPECT_TRUE(context.checkSignature(m().data, m().signature, verified) && verified);
        verified = false;
        EXPECT_TRUE(context.checkSignatureMPI(m().data, mpi, verified) && verified);
    }
}
