// VerifyContext on its own: the call orders, refusals and life cycle that the
// verification driver never produces. Matching and mismatching signatures, the
// MPI texts and the driver's own messages are proven end to end through
// BSContext in test_verify.cpp.
#include "verify_context.h"

#include <gtest/gtest.h>

#include <functional>

#include "test_support.h"

using namespace kzol_test;
using V = VerifyContext;

// A development key, data signed with its private half by the openssl command,
// and an EC public key (parsed by OpenSSL, but not RSA).
struct Material {
    std::string key = readFile(devPublicKey('5')), text = "data signed at test time", ec;
    ByteBuffer data{text.begin(), text.end()};
    std::string raw = opensslSign(text, devPrivateKey('5'));
    ByteBuffer sig{raw.begin(), raw.end()};
    Material() { run("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 | openssl pkey -pubout", &ec); }
};

static const Material& m()
{
    static const Material material;
    return material;
}

// Each action answers its last call. The flag starts true, so a check that was
// not carried out visibly leaves it alone.
TEST(VerifyContext, FailuresLogAndLeaveTheFlag)
{
    ASSERT_NE(m().ec.find("-----BEGIN PUBLIC KEY-----"), std::string::npos);
    const auto vc = [](const std::string& f, const std::string& text) {
        return errorLine("verify_context.cpp", f, "VerifyContext::" + f + "(): " + text);
    };
    const std::string noKey = vc("check", "m_pKey or m_pContext is NULL");
    const std::string loadFailed = vc("loadKey", "failed to load public key");
    struct Case { const char* name; std::function<bool(V&, bool&)> action; std::vector<std::string> log; };
    const std::vector<Case> cases = {
        {"check on a new object", [](V& c, bool& v) { return c.check(m().sig, v); },
         {noKey}},
        {"without init", [](V& c, bool& v) { return c.loadKey(m().key) && c.check(m().sig, v); }, {noKey}},
        {"without key", [](V& c, bool& v) { return c.init() && c.update(m().data) && c.check(m().sig, v); }, {noKey}},
        // A failed load releases the key loaded before.
        {"second loadKey fails",
         [](V& c, bool& v) { return c.loadKey(m().key) && !c.loadKey("-") && c.checkSignature(m().data, m().sig, v); },
         {loadFailed, noKey}},
        {"EC key", [](V& c, bool& v) { return c.loadKey(m().ec) || c.checkSignature(m().data, m().sig, v); },
         {loadFailed, noKey}},
        {"destroyed twice",
         [](V& c, bool& v) { c.loadKey(m().key); c.init(); c.destroy(); c.destroy(); return c.check(m().sig, v); },
         {noKey}},
        {"update before init", [](V& c, bool&) { return c.update(m().data); }, {vc("update", "m_pContext is NULL")}},
        {"update with null", [](V& c, bool&) { return c.init() && c.update(nullptr, 4); },
         {vc("update", "data is NULL")}},
        {"empty data", [](V& c, bool& v) { return c.loadKey(m().key) && c.checkSignature({}, m().sig, v); },
         {vc("update", "data is empty")}},
        {"MPI without NUL",
         [](V& c, bool& v) { return c.loadKey(m().key) && c.checkSignatureMPI(m().data, {'0', 'x'}, v); },
         {vc("checkMPI", "invalid MPI format")}},
        // The null signature is refused before the context is looked at.
        {"null signature", [](V& c, bool& v) { return c.check(nullptr, 256, v); }, {vc("check", "pSignature is NULL")}},
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

// Destroyed and loaded again, an object checks as new, with a fresh digest for
// each one-call check.
TEST(VerifyContext, ReusedAfterDestroy)
{
    EXPECT_EQ(hashType(), EVP_sha256());
    VerifyContext c;
    ByteBuffer mpi;
    ASSERT_TRUE(c.loadKey(m().key) && c.init() && c.update(ByteBuffer{'x'}));
    c.destroyKey();
    c.destroyContext();
    cleanupOpenSSL();
    ASSERT_TRUE(c.loadKey(m().key) && toMPIString(m().sig, mpi));
    for (int round = 0; round < 4; ++round) {
        bool v = false;
        EXPECT_TRUE((round % 2 ? c.checkSignatureMPI(m().data, mpi, v) : c.checkSignature(m().data, m().sig, v)) && v);
    }
}
