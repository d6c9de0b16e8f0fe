// The verification driver end to end: files signed at test time with the
// openssl command, verified by BSContext with the built-in keys; and
// VerifyContext on its own, in the call orders, refusals and life cycle that
// the driver never produces.

#include <dlfcn.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <functional>
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

// The standard-error line of a check that was not carried out.
static std::string checkError(const std::string& path)
{
    return "[zol][tester] : error during signature check [ file_path : " + path + " ]\n";
}

// A line VerifyContext logs from `function`.
static std::string vcLine(const std::string& function, const std::string& text)
{
    return errorLine("verify_context.cpp", function, "VerifyContext::" + function + "(): " + text);
}

// Each row with the built-in keys and with the development keys handed in
// as texts: the same loader, selection, check and log lines.
TEST(VerifyFile, SignedFilesAndTamperedOnes)
{
    const TempDir dir;
    const std::string path = dir.file("script.sh"), content = "#!/bin/sh\necho 'hello from a signed script'\n";
    const std::size_t meta = content.size();
    const std::string signed5 = signedFile(content, "P50", devPrivateKey('5')), mpi5 = signed5.substr(meta + 3, 514);
    const std::string signed6 = signedFile(content, "P60", devPrivateKey('6'));
    const auto flip = [](std::string s, std::size_t at, char c) { return s.replace(at, 1, 1, c); };
    const auto block5 = [&](const std::string& text) { return blockAfter(content + "P50", text); };
    const std::string ok = checkLine("Correct Signed", path, "tester");
    const std::string bad = checkLine("Incorrect Signed", path, "tester");
    struct Case {
        const char* name;
        std::string file;
        Result result;
        Lines log;
        bool checkError = false;
        std::string keys = "56";  // the keys handed in for selectors 5 and 6; other than "56": none built in
    };
    const std::vector<Case> cases = {
        {"key 5", signed5, BS_SIGNATURE_CORRECT, {ok}},
        {"key 6", signed6, BS_SIGNATURE_CORRECT, {ok}},
        {"signed block followed by CRLF", signed5 + "\r\n", BS_SIGNATURE_CORRECT, {ok}},
        {"key 6 for selector 5", signedFile(content, "P50", devPrivateKey('6')), BS_SIGNATURE_INCORRECT, {bad}},
        {"content byte flipped", flip(signed5, 3, 'X'), BS_SIGNATURE_INCORRECT, {bad}},
        {"selector 5 changed to 6", flip(signed5, meta + 1, '6'), BS_SIGNATURE_INCORRECT, {bad}},
        {"third metadata byte changed", flip(signed5, meta + 2, '1'), BS_SIGNATURE_INCORRECT, {bad}},
        {"signature cut by one byte", block5(mpi5.substr(0, 512)), BS_SIGNATURE_INCORRECT, {bad}},
        {"selector 7", signedFile(content, "P70", devPrivateKey('5')), BS_ERROR, {}},
        {"type L", signedFile(content, "L50", devPrivateKey('5')), BS_ERROR, {}},
        {"unsigned", content, BS_NOT_SIGNED, {checkLine("Not Signed", path, "tester")}},
        {"upper-case X", block5("0X" + mpi5.substr(2)), BS_ERROR, {vcLine("checkMPI", "invalid MPI format")}, true},
        {"0x alone", block5("0x"), BS_ERROR, {vcLine("check", "signature is empty")}, true},
        {"keys swapped", signed5, BS_SIGNATURE_INCORRECT, {bad}, false, "65"},
        {"no key for the selector", signed6, BS_ERROR, {}, false, "5"},
    };
    for (const auto& c : cases) {
        for (const bool builtIn : {true, false}) {
            SCOPED_TRACE(std::string(c.name) + (builtIn ? ", built-in keys" : ", keys given"));
            if (builtIn && c.keys != "56") {
                continue;
            }
            const auto key = [&](std::size_t i) { return i < c.keys.size() ? readFile(devPublicKey(c.keys[i])) : ""; };
            writeFile(path, c.file);
            clearLog();
            StderrCapture err;
            EXPECT_EQ(builtIn ? BSContext().verifyFile(path, "tester")
                              : BSContext().verifyFileWithKeys(path, key(0), key(1), "tester"),
                      c.result);
            EXPECT_EQ(err.finish(), c.checkError ? checkError(path) : "");
            EXPECT_EQ(loggedLines(), c.log);
        }
    }
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
    // The file changed after its block was loaded: size -1 removes it. Bytes
    // appended (here a hole) are not part of the signed region.
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
        {"key text that does not load",
         static_cast<off_t>(file.size()),
         "not a key",
         {vcLine("loadKey", "failed to load public key"),
          errorLine("bs_context.cpp", "verify", "BSContext::verify(): failed to load RSA key from not a key")}},
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
        EXPECT_EQ(err.finish(), c.result == BS_ERROR ? checkError(path) : "") << c.name;
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
    struct Case {
        const char* name;
        std::function<bool(V&, bool&)> action;
        Lines log;
    };
    const std::vector<Case> cases = {
        {"check on a new object", [](V& c, bool& v) { return c.check(m().sig, v); }, {noKey}},
        {"without init", [](V& c, bool& v) { return c.loadKey(m().key) && c.check(m().sig, v); }, {noKey}},
        {"without key", [](V& c, bool& v) { return c.init() && c.update(m().data) && c.check(m().sig, v); }, {noKey}},
        // A failed load releases the key loaded before.
        {"second loadKey fails",
         [](V& c, bool& v) { return c.loadKey(m().key) && !c.loadKey("-") && c.checkSignature(m().data, m().sig, v); },
         {loadFailed, noKey}},
        {"EC key",
         [](V& c, bool& v) { return c.loadKey(m().ec) || c.checkSignature(m().data, m().sig, v); },
         {loadFailed, noKey}},
        {"update before init",
         [](V& c, bool&) { return c.update(m().data); },
         {vcLine("update", "m_pContext is NULL")}},
        {"update with null",
         [](V& c, bool&) { return c.init() && c.update(nullptr, 4); },
         {vcLine("update", "data is NULL")}},
        // The null signature is refused before the context is looked at.
        {"null signature",
         [](V& c, bool& v) { return c.check(nullptr, 256, v); },
         {vcLine("check", "pSignature is NULL")}},
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
