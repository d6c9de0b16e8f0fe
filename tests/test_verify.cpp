// The verification driver end to end: files signed at test time with the
// openssl command, read in pieces and checked after their block was loaded
// (test_kzol drives BSContext and kzol verify over one corpus of signed,
// tampered and malformed files); and VerifyContext on its own, in the call
// orders, refusals and life cycle that the driver never produces.

#include <dlfcn.h>
#include <openssl/evp.h>

#include <limits>

#include "bs_context.h"
#include "handles.h"
#include "test_support.h"
#include "verify_context.h"

using namespace kzol_test;
using V = VerifyContext;

// The sizes the library hands to the digest, seen at the process boundary.
static std::vector<size_t> g_updates;

extern "C" int EVP_DigestUpdate(EVP_MD_CTX* ctx, const void* data, size_t count)
{
    using Real = int (*)(EVP_MD_CTX*, const void*, size_t);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "EVP_DigestUpdate"));
    g_updates.push_back(count);
    return real(ctx, data, count);
}

// A line VerifyContext logs from `function`.
static std::string vcLine(const std::string& function, const std::string& text)
{
    return errorLine("verify_context.cpp", function, "VerifyContext::" + function + "(): " + text);
}

TEST(VerifyFile, ChunksAroundTheReadSize)
{
    const TempDir dir;
    const std::vector<std::pair<std::size_t, std::vector<size_t>>> cases = {
        {4, {4}}, {16383, {16383}}, {16384, {16384}}, {16385, {16384, 1}}, {3 * 16384 + 7, {16384, 16384, 16384, 7}},
    };
    for (const auto& [region, updates] : cases) {
        writeFile(dir.file("big"), signedFile(std::string(region - 3, 'a'), "P60", devPrivateKey('6')));
        g_updates.clear();
        EXPECT_EQ(BSContext().verifyFile(dir.file("big"), "tester"), BS_SIGNATURE_CORRECT) << region;
        EXPECT_EQ(g_updates, updates) << region;
    }
}

// The check with a loaded block: the file changed since, or a key text that
// does not load.
TEST(VerifyFile, CheckNotCarriedOut)
{
    const TempDir dir;
    const std::string path = dir.file("script.sh"), key = readFile(devPublicKey('5'));
    const std::string file = signedFile(std::string(40000, 'x'), "P50", devPrivateKey('5'));
    const std::string removed = "failed to open [" + path + "] for reading";
    // The standard-error line of a check that was not carried out.
    const std::string checkError = "[zol][tester] : error during signature check [ file_path : " + path + " ]\n";
    // The file changed after its block was loaded: size -1 removes it. Bytes
    // appended (here a hole) are not part of the signed region.
    const Lines keyFails = {
        vcLine("loadKey", "failed to load public key"),
        errorLine("bs_context.cpp", "verify", "BSContext::verify(): failed to load RSA key from not a key")};
    struct Case {
        const char* name;
        off_t size;
        std::string key;
        Lines log;
        Result result = BS_ERROR;
    };
    const std::vector<Case> cases = {
        {"truncated", 20000, key, {}},
        {"grown", 1 << 20, key, {checkLine("Correct Signed", path, "tester")}, BS_SIGNATURE_CORRECT},
        {"removed", -1, key, {errorLine("bs_context.cpp", "verify", "BSContext::verify(): " + removed)}},
        {"key text that does not load", static_cast<off_t>(file.size()), "not a key", keyFails},
    };
    for (const auto& c : cases) {
        writeFile(path, file);
        Signature signature;
        _ZolSigMeta meta{};
        ASSERT_TRUE(signature.loadFromFile(path, meta));
        ASSERT_EQ(c.size < 0 ? unlink(path.c_str()) : truncate(path.c_str(), c.size), 0);
        clearLog();
        StderrCapture err;
        EXPECT_EQ(BSContext().verifyFile(path, signature, c.key, "tester"), c.result) << c.name;
        EXPECT_EQ(err.finish(), c.result == BS_ERROR ? checkError : "") << c.name;
        EXPECT_EQ(loggedLines(), c.log) << c.name;
    }
}

// Helpers exported on their own, which the driver uses differently or not at all.
TEST(BSContext, SelectPubKeyAndFileSize)
{
    std::string key = "a key from before";  // only 'P' selects; an unknown selector clears the key
    EXPECT_FALSE(BSContext().SelectPubKey('p', '5', key)) << "type p";
    EXPECT_FALSE(BSContext().SelectPubKey('P', '9', key)) << "selector 9";
    EXPECT_EQ(key, "");
    const TempDir dir;
    // Sparse files around the limits of a 32-bit long and of 32-bit positions:
    // a size that long cannot hold is -1, never a wrapped one.
    const auto fitsLong = [](off_t size) { return size <= static_cast<off_t>(std::numeric_limits<long>::max()); };
    const off_t sizes[] = {12345, (off_t(1) << 31) - 1, off_t(1) << 31, (off_t(1) << 32) + 12345};
    for (const off_t size : sizes) {
        SCOPED_TRACE(std::to_string(size) + " bytes");
        writeFile(dir.file("f"), std::string(12345, 'z'));
        ASSERT_EQ(truncate(dir.file("f").c_str(), size), 0);
        const FilePtr file(std::fopen(dir.file("f").c_str(), "rb"));
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(BSContext().getFileSize(file.get()), fitsLong(size) ? static_cast<long>(size) : -1L);
    }
    clearLog();
    EXPECT_EQ(BSContext().getFileSize(nullptr), 0);
    EXPECT_EQ(loggedLines(),
              Lines{errorLine("bs_context.cpp", "getFileSize", "BSContext::getFileSize(): pFile is NULL")});
}

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
    const std::string noKey = vcLine("check", "m_pKey or m_pContext is NULL");
    const std::string loadFailed = vcLine("loadKey", "failed to load public key");
    const std::string noContext = vcLine("update", "m_pContext is NULL"), noData = vcLine("update", "data is NULL");
    const std::string noSignature = vcLine("check", "pSignature is NULL");
    const Lines failedLoad = {loadFailed, noKey};
    struct Case {
        const char* name;
        std::function<bool(V&, bool&)> action;
        Lines log;
    };
    const std::vector<Case> cases = {
        {"without init", [](V& c, bool& v) { return c.loadKey(m().key) && c.check(m().sig, v); }, {noKey}},
        {"without key", [](V& c, bool& v) { return c.init() && c.update(m().data) && c.check(m().sig, v); }, {noKey}},
        // A failed load releases the key loaded before.
        {"second loadKey fails",
         [](V& c, bool& v) { return c.loadKey(m().key) && !c.loadKey("-") && c.checkSignature(m().data, m().sig, v); },
         failedLoad},
        {"EC key", [](V& c, bool& v) { return c.loadKey(m().ec) || c.checkSignature(m().data, m().sig, v); },
         failedLoad},
        {"update before init", [](V& c, bool&) { return c.update(m().data); }, {noContext}},
        {"update with null", [](V& c, bool&) { return c.init() && c.update(nullptr, 4); }, {noData}},
        // The null signature is refused before the context is looked at.
        {"null signature", [](V& c, bool& v) { return c.check(nullptr, 256, v); }, {noSignature}},
    };
    for (const Case& c : cases) {
        clearLog();
        VerifyContext context;
        bool verified = true;
        EXPECT_FALSE(c.action(context, verified)) << c.name;
        EXPECT_TRUE(verified) << c.name;
        EXPECT_EQ(loggedLines(), c.log) << c.name;
    }
}

// Destroyed and loaded again, an object checks as new, with a fresh digest for
// each one-call check.
TEST(VerifyContext, ReusedAfterDestroy)
{
    VerifyContext c;
    ByteBuffer mpi;
    ASSERT_TRUE(c.loadKey(m().key));
    ASSERT_TRUE(c.init());
    ASSERT_TRUE(c.update(ByteBuffer{'x'}));
    c.destroyKey();
    c.destroyContext();
    ASSERT_TRUE(c.loadKey(m().key));
    ASSERT_TRUE(toMPIString(m().sig, mpi));
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        bool v = false;
        EXPECT_TRUE(round % 2 ? c.checkSignatureMPI(m().data, mpi, v) : c.checkSignature(m().data, m().sig, v));
        EXPECT_TRUE(v);
    }
}
