// The verification driver end to end: files signed at test time with the
// openssl command, verified by BSContext with the built-in keys.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bs_context.h"
#include "test_support.h"

using kzol_test::errorLine;
using kzol_test::LogRecorder;

// The sizes the library hands to the digest, seen at the process boundary.
static std::vector<size_t> g_updates;

extern "C" int EVP_DigestUpdate(EVP_MD_CTX* ctx, const void* data, size_t count)
{
    using Real = int (*)(EVP_MD_CTX*, const void*, size_t);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "EVP_DigestUpdate"));
    g_updates.push_back(count);
    return real(ctx, data, count);
}

namespace {

std::string sign(const std::string& content, const std::string& meta, char key)
{
    return kzol_test::signedFile(content, meta, kzol_test::devPrivateKey(key));
}

std::string checkError(const std::string& path)
{
    return "[zol][tester] : error during signature check [ file_path : " + path + " ]\n";
}

}  // namespace

TEST(VerifyFile, SignedFilesAndTamperedOnes)
{
    kzol_test::TempDir dir;
    const std::string path = dir.file("script.sh");
    const std::string content = "#!/bin/sh\necho 'hello from a signed script'\n";
    const std::string signed5 = sign(content, "P50", '5');
    const std::size_t metaAt = content.size();
    const auto flip = [](std::string s, std::size_t at, char c) { return s.replace(at, 1, 1, c); };
    const std::string raw5 = kzol_test::opensslSign(content + "P50", kzol_test::devPrivateKey('5'));
    const auto block5 = [&](const std::string& text) { return kzol_test::blockAfter(content + "P50", text); };
    const std::string end = " [ file_path : " + path + " ]\033[0m";
    const std::string ok =
        kzol_test::infoLine("bs_context.cpp", "verifyFile", "[zol][tester] : \033[1;32mCorrect Signed" + end);
    const std::string bad =
        errorLine("bs_context.cpp", "verifyFile", "[zol][tester]! : \033[1;31mIncorrect Signed" + end);
    const std::string notSigned =
        errorLine("bs_context.cpp", "verifyFile", "[zol][tester]! : \033[1;31mNot Signed" + end);
    const std::string invalidMpi =
        errorLine("verify_context.cpp", "checkMPI", "VerifyContext::checkMPI(): invalid MPI format");
    // checkError: the standard-error line of a check that was not carried out.
    struct Case { const char* name; std::string file; Result result; std::vector<std::string> log; bool checkError; };
    const std::vector<Case> cases = {
        {"key 5", signed5, BS_SIGNATURE_CORRECT, {ok}, false},
        {"key 6", sign(content, "P60", '6'), BS_SIGNATURE_CORRECT, {ok}, false},
        {"labelled 5, signed with 6", sign(content, "P50", '6'), BS_SIGNATURE_INCORRECT, {bad}, false},
        {"content byte flipped", flip(signed5, 3, 'X'), BS_SIGNATURE_INCORRECT, {bad}, false},
        {"selector 5 changed to 6", flip(signed5, metaAt + 1, '6'), BS_SIGNATURE_INCORRECT, {bad}, false},
        {"third metadata byte changed", flip(signed5, metaAt + 2, '1'), BS_SIGNATURE_INCORRECT, {bad}, false},
        {"type changed to L", flip(signed5, metaAt, 'L'), BS_ERROR, {}, false},
        {"type changed to X", flip(signed5, metaAt, 'X'), BS_NOT_SIGNED,
         {errorLine("signature.cpp", "getSignatureInfo",
                    "Signature::getSignatureInfo(): file to read file signature type[X]"),
          notSigned},
         false},
        {"type L", sign(content, "L50", '5'), BS_ERROR, {}, false},
        {"selector 7", sign(content, "P70", '5'), BS_ERROR, {}, false},
        {"unsigned", content, BS_NOT_SIGNED, {notSigned}, false},
        {"odd digit count", block5(kzol_test::mpiText(raw5) + "a"), BS_ERROR,
         {errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found"), invalidMpi}, true},
        {"upper-case X", block5("0X" + kzol_test::mpiText(raw5).substr(2)), BS_ERROR, {invalidMpi}, true},
        {"0x alone", block5("0x"), BS_ERROR,
         {errorLine("verify_context.cpp", "check", "VerifyContext::check(): signature is empty")}, true},
        {"signature cut by one byte", block5(kzol_test::mpiText(raw5.substr(0, raw5.size() - 1))),
         BS_SIGNATURE_INCORRECT, {bad}, false},
        {"signed block followed by CRLF", signed5 + "\r\n", BS_SIGNATURE_CORRECT, {ok}, false},
    };
    for (const auto& c : cases) {
        kzol_test::writeFile(path, c.file);
        LogRecorder::clear();
        kzol_test::StderrCapture err;
        EXPECT_EQ(BSContext().verifyFile(path, "tester"), c.result) << c.name;
        EXPECT_EQ(err.finish(), c.checkError ? checkError(path) : "") << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
    }
}

TEST(VerifyFile, ChunksAroundTheReadSize)
{
    kzol_test::TempDir dir;
    const std::vector<std::pair<std::size_t, std::vector<size_t>>> cases = {
        {4, {4}}, {16383, {16383}}, {16384, {16384}}, {16385, {16384, 1}}, {3 * 16384 + 7, {16384, 16384, 16384, 7}},
    };
    for (const auto& [region, updates] : cases) {
        kzol_test::writeFile(dir.file("big"), sign(std::string(region - 3, 'a'), "P60", '6'));
        g_updates.clear();
        EXPECT_EQ(BSContext().verifyFile(dir.file("big"), "tester"), BS_SIGNATURE_CORRECT) << region;
        EXPECT_EQ(g_updates, updates) << region;
    }
}

// The check with a loaded block: the file changed since, or a key text that
// does not load.
TEST(VerifyFile, CheckNotCarriedOut)
{
    kzol_test::TempDir dir;
    const std::string path = dir.file("script.sh");
    const std::string file = sign(std::string(40000, 'x'), "P50", '5');
    std::string key;
    ASSERT_TRUE(BSContext().SelectPubKey('P', '5', key));
    struct Case { const char* name; std::function<void()> change; std::string key; std::vector<std::string> log; };
    const std::vector<Case> cases = {
        {"truncated", [&] { ASSERT_EQ(truncate(path.c_str(), 20000), 0); }, key, {}},
        {"removed", [&] { ASSERT_EQ(unlink(path.c_str()), 0); }, key,
         {errorLine("bs_context.cpp", "verify", "BSContext::verify(): failed to open [" + path + "] for reading")}},
        {"key text that does not load", [] {}, "not a key",
         {errorLine("verify_context.cpp", "loadKey", "VerifyContext::loadKey(): failed to load public key"),
          errorLine("bs_context.cpp", "verify", "BSContext::verify(): failed to load RSA key from not a key")}},
    };
    for (const auto& c : cases) {
        kzol_test::writeFile(path, file);
        Signature signature;
        _ZolSigMeta meta{};
        ASSERT_TRUE(signature.loadFromFile(path, meta));
        c.change();
        LogRecorder::clear();
        kzol_test::StderrCapture err;
        EXPECT_EQ(BSContext().verifyFile(path, signature, c.key, "tester"), BS_ERROR) << c.name;
        EXPECT_EQ(err.finish(), checkError(path)) << c.name;
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.name;
    }
}

TEST(SelectPubKey, OnlyTypePWithFiveOrSix)
{
    const std::string key5 = kzol_test::readFile(kzol_test::devPublicKey('5'));
    const std::string key6 = kzol_test::readFile(kzol_test::devPublicKey('6'));
    ASSERT_EQ(key5.size(), 445u);
    struct Case { char type, selector; bool selected; std::string key; };  // key: afterwards, starting from "before"
    const std::vector<Case> cases = {
        {'P', '5', true, key5}, {'P', '6', true, key6}, {'P', '9', false, ""}, {'P', '\0', false, ""},
        {'L', '5', false, "before"}, {'p', '6', false, "before"}, {'\0', '5', false, "before"},
    };
    for (const auto& c : cases) {
        std::string key = "before";
        EXPECT_EQ(BSContext().SelectPubKey(c.type, c.selector, key), c.selected) << c.type << c.selector;
        EXPECT_EQ(key, c.key) << c.type << c.selector;
    }
}

TEST(BSContextFileSize, SizeAndNull)
{
    kzol_test::TempDir dir;
    kzol_test::writeFile(dir.file("f"), std::string(12345, 'z'));
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(dir.file("f").c_str(), "rb"), &std::fclose);
    EXPECT_EQ(BSContext().getFileSize(file.get()), 12345);
    LogRecorder::clear();
    EXPECT_EQ(BSContext().getFileSize(nullptr), 0);
    EXPECT_EQ(LogRecorder::lines(), std::vector<std::string>{errorLine("bs_context.cpp", "getFileSize",
                                                                       "BSContext::getFileSize(): pFile is NULL")});
}
