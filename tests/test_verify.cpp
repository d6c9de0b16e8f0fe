// The verification driver end to end: files signed at test time with the
// openssl command, verified by BSContext with the built-in keys.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "bs_context.h"
#include "test_support.h"

using kzol_test::errorLine;
using kzol_test::infoLine;
using kzol_test::LogRecorder;
using kzol_test::TempDir;

namespace {

// The sizes the library hands to the digest, seen at the process boundary.
std::mutex g_updateMutex;
std::vector<size_t> g_updates;

}  // namespace

extern "C" int EVP_DigestUpdate(EVP_MD_CTX* ctx, const void* data, size_t count)
{
    using Real = int (*)(EVP_MD_CTX*, const void*, size_t);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "EVP_DigestUpdate"));
    {
        std::lock_guard<std::mutex> lock(g_updateMutex);
        g_updates.push_back(count);
    }
    return real(ctx, data, count);
}

namespace {

std::vector<size_t> takeUpdates()
{
    std::lock_guard<std::mutex> lock(g_updateMutex);
    std::vector<size_t> updates;
    updates.swap(g_updates);
    return updates;
}

using kzol_test::blockAfter;
using kzol_test::mpiText;

std::string withBlock(const std::string& region, const std::string& text)
{
    return blockAfter(region, text);
}

struct Fixture {
    TempDir dir;
    std::string stranger;

    Fixture()
    {
        stranger = dir.file("stranger.pem");
        EXPECT_EQ(kzol_test::run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out '" + stranger +
                                 "' 2>/dev/null"),
                  0);
    }

    // A file of `content` signed as type/selector `meta` with `privateKey`.
    std::string sign(const std::string& content, const std::string& meta, const std::string& privateKey)
    {
        return kzol_test::signedFile(content, meta + "0", privateKey);
    }
};

std::string notSigned(const std::string& caller, const std::string& path)
{
    return errorLine("bs_context.cpp", "verifyFile",
                     "[zol][" + caller + "]! : \033[1;31mNot Signed [ file_path : " + path + " ]\033[0m");
}
std::string correct(const std::string& caller, const std::string& path)
{
    return infoLine("bs_context.cpp", "verifyFile",
                    "[zol][" + caller + "] : \033[1;32mCorrect Signed [ file_path : " + path + " ]\033[0m");
}
std::string incorrect(const std::string& caller, const std::string& path)
{
    return errorLine("bs_context.cpp", "verifyFile",
                     "[zol][" + caller + "]! : \033[1;31mIncorrect Signed [ file_path : " + path + " ]\033[0m");
}
std::string checkError(const std::string& caller, const std::string& path)
{
    return "[zol][" + caller + "] : error during signature check [ file_path : " + path + " ]\n";
}

}  // namespace

TEST(VerifyFile, SignedFilesAndTamperedOnes)
{
    Fixture f;
    const std::string content = "#!/bin/sh\necho 'hello from a signed script'\n";
    const std::string signed5 = f.sign(content, "P5", kzol_test::devPrivateKey('5'));
    const std::string signed6 = f.sign(content, "P6", kzol_test::devPrivateKey('6'));
    const std::string signedL = f.sign(content, "L5", kzol_test::devPrivateKey('5'));
    const std::string signed7 = f.sign(content, "P7", kzol_test::devPrivateKey('5'));
    const std::size_t metaAt = content.size();

    auto flip = [](std::string s, std::size_t at, char c) {
        s[at] = c;
        return s;
    };
    const std::string path = f.dir.file("script.sh");
    const std::string invalidMpi = errorLine("verify_context.cpp", "checkMPI", "VerifyContext::checkMPI(): invalid MPI format");
    const std::string badDigit = errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found");
    const std::string region5 = content + "P50";
    const std::string raw5 = kzol_test::opensslSign(region5, kzol_test::devPrivateKey('5'));
    struct Case {
        const char* name;
        std::string file;
        Result result;
        std::vector<std::string> log;
        std::string stderrText;
    };
    const std::vector<Case> cases = {
        {"key 5", signed5, BS_SIGNATURE_CORRECT, {correct("tester", path)}, ""},
        {"key 6", signed6, BS_SIGNATURE_CORRECT, {correct("tester", path)}, ""},
        {"labelled 5, signed with 6", f.sign(content, "P5", kzol_test::devPrivateKey('6')), BS_SIGNATURE_INCORRECT,
         {incorrect("tester", path)}, ""},
        {"stranger key", f.sign(content, "P5", f.stranger), BS_SIGNATURE_INCORRECT, {incorrect("tester", path)}, ""},
        {"content byte flipped", flip(signed5, 3, 'X'), BS_SIGNATURE_INCORRECT, {incorrect("tester", path)}, ""},
        {"selector 5 changed to 6", flip(signed5, metaAt + 1, '6'), BS_SIGNATURE_INCORRECT,
         {incorrect("tester", path)}, ""},
        {"third metadata byte changed", flip(signed5, metaAt + 2, '1'), BS_SIGNATURE_INCORRECT,
         {incorrect("tester", path)}, ""},
        {"type changed to L", flip(signed5, metaAt, 'L'), BS_ERROR, {}, ""},
        {"type changed to X", flip(signed5, metaAt, 'X'), BS_NOT_SIGNED,
         {errorLine("signature.cpp", "getSignatureInfo",
                    "Signature::getSignatureInfo(): file to read file signature type[X]"),
          notSigned("tester", path)},
         ""},
        {"type L", signedL, BS_ERROR, {}, ""},
        {"selector 7", signed7, BS_ERROR, {}, ""},
        {"unsigned", content, BS_NOT_SIGNED, {notSigned("tester", path)}, ""},
        {"odd digit count", withBlock(region5, mpiText(raw5) + "a"), BS_ERROR, {badDigit, invalidMpi},
         checkError("tester", path)},
        {"upper-case X", withBlock(region5, "0X" + mpiText(raw5).substr(2)), BS_ERROR, {invalidMpi},
         checkError("tester", path)},
        {"upper-case digits", withBlock(region5, "0x" + [&] {
             std::string t = mpiText(raw5).substr(2);
             for (auto& c : t) c = static_cast<char>(std::toupper(c));
             return t;
         }()),
         BS_SIGNATURE_CORRECT, {correct("tester", path)}, ""},
        {"0x alone", withBlock(region5, "0x"), BS_ERROR,
         {errorLine("verify_context.cpp", "check", "VerifyContext::check(): signature is empty")},
         checkError("tester", path)},
        {"signature cut by one byte", withBlock(region5, mpiText(raw5.substr(0, raw5.size() - 1))),
         BS_SIGNATURE_INCORRECT, {incorrect("tester", path)}, ""},
        {"signed block followed by CRLF", signed5 + "\r\n", BS_SIGNATURE_CORRECT, {correct("tester", path)}, ""},
    };
    for (const auto& c : cases) {
        kzol_test::writeFile(path, c.file);
        LogRecorder::clear();
        kzol_test::StderrCapture err;
        BSContext context;
        EXPECT_EQ(context.verifyFile(path, "tester"), c.result) << c.name;
        EXPECT_EQ(err.finish(), c.stderrText) << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
    }
}

TEST(VerifyFile, ChunksAroundTheReadSize)
{
    Fixture f;
    const std::string path = f.dir.file("big");
    struct Case {
        std::size_t region;
        std::vector<size_t> updates;
    };
    const std::vector<Case> cases = {
        {4, {4}},
        {16383, {16383}},
        {16384, {16384}},
        {16385, {16384, 1}},
        {3 * 16384 + 7, {16384, 16384, 16384, 7}},
    };
    for (const auto& c : cases) {
        const std::string content(c.region - 3, 'a');
        kzol_test::writeFile(path, f.sign(content, "P6", kzol_test::devPrivateKey('6')));
        takeUpdates();
        BSContext context;
        EXPECT_EQ(context.verifyFile(path, "tester"), BS_SIGNATURE_CORRECT) << c.region;
        EXPECT_EQ(takeUpdates(), c.updates) << c.region;
    }
}

TEST(VerifyFile, FileChangesBetweenLoadAndHashing)
{
    Fixture f;
    const std::string path = f.dir.file("script.sh");
    const std::string file = f.sign(std::string(40000, 'x'), "P5", kzol_test::devPrivateKey('5'));
    std::string key;
    BSContext context;
    ASSERT_TRUE(context.SelectPubKey('P', '5', key));

    struct Case {
        const char* name;
        std::function<void()> change;
        std::vector<std::string> log;
    };
    const std::vector<Case> cases = {
        {"truncated", [&] { ASSERT_EQ(truncate(path.c_str(), 20000), 0); }, {}},
        {"removed", [&] { ASSERT_EQ(unlink(path.c_str()), 0); },
         {errorLine("bs_context.cpp", "verify", "BSContext::verify(): failed to open [" + path + "] for reading")}},
    };
    for (const auto& c : cases) {
        kzol_test::writeFile(path, file);
        Signature signature;
        _ZolSigMeta meta{};
        ASSERT_TRUE(signature.loadFromFile(path, meta));
        c.change();
        LogRecorder::clear();
        kzol_test::StderrCapture err;
        EXPECT_EQ(context.verifyFile(path, signature, key, "tester"), BS_ERROR) << c.name;
        EXPECT_EQ(err.finish(), checkError("tester", path)) << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
    }
}

TEST(VerifyFile, KeyTextThatDoesNotLoad)
{
    Fixture f;
    const std::string path = f.dir.file("script.sh");
    kzol_test::writeFile(path, f.sign("echo\n", "P5", kzol_test::devPrivateKey('5')));
    Signature signature;
    _ZolSigMeta meta{};
    ASSERT_TRUE(signature.loadFromFile(path, meta));
    LogRecorder::clear();
    kzol_test::StderrCapture err;
    BSContext context;
    EXPECT_EQ(context.verifyFile(path, signature, "not a key", "tester"), BS_ERROR);
    EXPECT_EQ(err.finish(), checkError("tester", path));
    EXPECT_EQ(LogRecorder::lines(),
              (std::vector<std::string>{
                  errorLine("verify_context.cpp", "loadKey", "VerifyContext::loadKey(): failed to load public key"),
                  errorLine("bs_context.cpp", "verify", "BSContext::verify(): failed to load RSA key from not a key")}));
}

TEST(SelectPubKey, OnlyTypePWithFiveOrSix)
{
    const std::string key5 = kzol_test::readFile(kzol_test::devPublicKey('5'));
    const std::string key6 = kzol_test::readFile(kzol_test::devPublicKey('6'));
    ASSERT_EQ(key5.size(), 445u);
    struct Case {
        char type, selector;
        bool selected;
        std::string key;  // the key string afterwards, starting from "before"
    };
    const std::vector<Case> cases = {
        {'P', '5', true, key5}, {'P', '6', true, key6}, {'P', '9', false, ""}, {'P', '\0', false, ""},
        {'L', '5', false, "before"}, {'p', '6', false, "before"}, {'\0', '5', false, "before"},
    };
    BSContext context;
    for (const auto& c : cases) {
        std::string key = "before";
        EXPECT_EQ(context.SelectPubKey(c.type, c.selector, key), c.selected) << c.type << c.selector;
        EXPECT_EQ(key, c.key) << c.type << c.selector;
    }
}

TEST(BSContextFileSize, SizeAndNull)
{
    TempDir dir;
    kzol_test::writeFile(dir.file("f"), std::string(12345, 'z'));
    FILE* file = std::fopen(dir.file("f").c_str(), "rb");
    ASSERT_NE(file, nullptr);
    BSContext context;
    EXPECT_EQ(context.getFileSize(file), 12345);
    std::fclose(file);
    LogRecorder::clear();
    EXPECT_EQ(context.getFileSize(nullptr), 0);
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{errorLine("bs_context.cpp", "getFileSize",
                                                                       "BSContext::getFileSize(): pFile is NULL")});
}
