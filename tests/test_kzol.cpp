// The kzol tool, run as a program: keygen, sign and inspect. Signed files are
// checked independently of the tool with the openssl command.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"

using namespace kzol_test;
namespace fs = std::filesystem;

namespace {

struct Outcome {
    int status;
    std::string text;  // standard output and error
};

std::string q(const std::string& s)
{
    return "'" + s + "'";
}

// Runs `kzol ARGS` in `dir` with no terminal input.
Outcome kzol(const std::string& dir, const std::string& args)
{
    Outcome o;
    o.status = run("cd " + q(dir) + " && " + q(KZOL_TOOL) + " " + args + " </dev/null 2>&1", &o.text);
    return o;
}

std::string signArgs(const std::string& key, char keyId)
{
    return "sign --key " + q(key) + " --key-id " + keyId + " ";
}

// Name and contents of every entry of a directory, temporary files included.
std::map<std::string, std::string> snapshot(const std::string& dir)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(dir)) {
        files[entry.path().filename().string()] = entry.is_regular_file() ? readFile(entry.path().string()) : "-";
    }
    return files;
}

// openssl alone checks the block of `file`: its first `offset` bytes against
// the signature written after them as "0x" and hexadecimal digits.
bool opensslVerifies(const std::string& file, std::size_t offset, const std::string& publicKey)
{
    const std::string bytes = readFile(file);
    std::string raw;
    for (std::size_t i = offset + 2; i + 2 <= std::min(bytes.size(), offset + 514); i += 2) {
        raw += static_cast<char>(std::stoi(bytes.substr(i, 2), nullptr, 16));
    }
    writeFile(file + ".region", bytes.substr(0, offset));
    writeFile(file + ".sig", raw);
    return run("openssl dgst -sha256 -verify " + q(publicKey) + " -signature " + q(file + ".sig") + " " +
               q(file + ".region") + " >/dev/null 2>&1") == 0;
}

const std::string kContent = "#!/bin/sh\necho \"hello\"\n\x01\x80\xff binary tail\n";

TEST(KzolKeygen, WritesFourKeysButOverwritesOnlyWithForce)
{
    TempDir dir;
    writeFile(dir.file("public_key_6.pem"), "old key\n");
    EXPECT_EQ(kzol(dir.path(), "keygen .").status, 1);
    EXPECT_EQ(snapshot(dir.path()), (std::map<std::string, std::string>{{"public_key_6.pem", "old key\n"}}));

    const Outcome o = kzol(dir.path(), "keygen --force .");
    ASSERT_EQ(o.status, 0) << o.text;
    EXPECT_NE(readFile(dir.file("public_key_5.pem")), readFile(dir.file("public_key_6.pem")));
    for (const std::string selector : {"5", "6"}) {
        const std::string pub = "public_key_" + selector + ".pem", priv = "private_key_" + selector + ".pem";
        EXPECT_EQ(readFile(dir.file(pub)).size(), 445u);
        EXPECT_EQ(fs::status(dir.file(priv)).permissions(), fs::perms(0600));
        // sign takes only an RSA-2048 key; openssl checks its signature with the public twin.
        ASSERT_EQ(kzol(dir.path(), signArgs(priv, selector[0]) + pub + " -o s" + selector).status, 0);
        EXPECT_TRUE(opensslVerifies(dir.file("s" + selector), 445 + 3, dir.file(pub)));
    }
}

TEST(KzolSign, SignedFilesVerifyWithOpenssl)
{
    struct Case {
        char keyId;
        const char* meta;   // of the block expected
        const char* args;   // after the key options
        std::string input;  // script.sh
        const char* output;
        unsigned int mode;
    };
    const std::vector<Case> cases = {
        {'5', "P50", "script.sh", kContent, "script.sh", 0750},
        // Blanks after a block leave it the file's block; --force replaces it.
        {'6', "L60", "--force --type L script.sh -o signed.sh",
         signedFile(kContent, "P50", devPrivateKey('5')) + "\r\n", "signed.sh", 0640},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        TempDir dir;
        writeFile(dir.file("script.sh"), c.input);
        ASSERT_EQ(::chmod(dir.file("script.sh").c_str(), c.mode), 0);
        const Outcome o = kzol(dir.path(), signArgs(devPrivateKey(c.keyId), c.keyId) + c.args);
        ASSERT_EQ(o.status, 0) << o.text;
        const bool inPlace = std::string(c.output) == "script.sh";
        EXPECT_EQ(snapshot(dir.path()).size(), inPlace ? 1u : 2u) << "a temporary file is left";
        EXPECT_EQ(readFile(dir.file(c.output)), signedFile(kContent, c.meta, devPrivateKey(c.keyId)));
        EXPECT_TRUE(opensslVerifies(dir.file(c.output), kContent.size() + 3, devPublicKey(c.keyId)));
        EXPECT_EQ(fs::status(dir.file(c.output)).permissions(), fs::perms(c.mode));
        if (!inPlace) {
            EXPECT_EQ(readFile(dir.file("script.sh")), c.input);
        }
    }
}

TEST(KzolSign, FailuresLeaveEverythingAsItWas)
{
    TempDir keys;
    ASSERT_EQ(run("openssl genrsa -out " + q(keys.file("rsa1024.pem")) + " 1024 2>/dev/null"), 0);
    const std::string key5 = signArgs(devPrivateKey('5'), '5');
    struct Case {
        std::string input;  // script.sh
        std::string args;
        int status;
        const char* says;
    };
    const std::vector<Case> cases = {
        {"x", signArgs(devPublicKey('5'), '5') + "script.sh", 2, "not an unencrypted PEM private key"},
        {"x", signArgs(keys.file("rsa1024.pem"), '5') + "script.sh", 2, "RSA key of 1024 bits"},
        {"", key5 + "script.sh", 2, "is empty"},
        {signedFile(kContent, "P50", devPrivateKey('5')) + "\r\n", key5 + "script.sh", 1, "already carries a"},
        {"x", key5 + "script.sh -o other", 1, "exists; use --force"},
        // Found missing, then refused by the final link: the temporary file goes.
        {"x", key5 + "script.sh -o dangling", 2, "dangling already exists"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        TempDir work;
        writeFile(work.file("script.sh"), c.input);
        writeFile(work.file("other"), "another file\n");
        ASSERT_EQ(::symlink("nowhere", work.file("dangling").c_str()), 0);
        const auto before = snapshot(work.path());
        const Outcome o = kzol(work.path(), c.args);
        EXPECT_EQ(o.status, c.status) << o.text;
        EXPECT_NE(o.text.find(c.says), std::string::npos) << o.text;
        EXPECT_EQ(snapshot(work.path()), before);
    }
}

TEST(KzolInspect, ReportsTheBlockOrWhyThereIsNone)
{
    struct Case {
        std::string bytes;
        int status;
        const char* says;  // in the text form
        const char* json;  // loaded, offset, type, key_id, signature_length, trailing_blanks, reason
    };
    const std::vector<Case> cases = {
        {signedFile("data", "P60", devPrivateKey('6')) + "\r\n", 0, "signature block loaded",
         R"j([true, 7, "P", "6", 256, 2, null])j"},
        {kContent, 1, "no signature block: no \":ZOL\" footprint at E-4",
         R"j([false, null, null, null, null, 2, "no \":ZOL\" footprint at E-4 (position 33)"])j"},
        {blockAfter("dataX50", "0x0102abcd"), 1, "bad type character 'X'",
         R"j([false, 7, "X", "5", null, 0, "bad type character 'X' (0x58): the reader accepts only 'L' and 'P'"])j"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        TempDir dir;
        writeFile(dir.file("target"), c.bytes);
        const Outcome o = kzol(dir.path(), "inspect target");
        EXPECT_EQ(o.status, c.status);
        EXPECT_NE(o.text.find(c.says), std::string::npos) << o.text;
        std::string json;
        EXPECT_EQ(run("cd " + q(dir.path()) + " && " + q(KZOL_TOOL) + " inspect --json target 2>/dev/null | python3 -c "
                      "'import json,sys; d=json.load(sys.stdin); print(json.dumps([d[k] for k in sys.argv[1:]]))' "
                      "loaded offset type key_id signature_length trailing_blanks reason",
                      &json),
                  0);
        EXPECT_EQ(json, std::string(c.json) + "\n");
    }
}

}  // namespace
