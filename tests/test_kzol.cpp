// The kzol tool, run as a program: keygen, sign and inspect. Signed files are
// compared with ones made independently of the tool by the openssl command.
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <filesystem>
#include <map>
#include <memory>

#include "test_support.h"

using namespace kzol_test;
namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;

// Name and contents of every entry of a directory, temporary files included.
static Files snapshot(const std::string& dir)
{
    Files files;
    for (const auto& entry : fs::directory_iterator(dir)) {
        files[entry.path().filename().string()] = entry.is_regular_file() ? readFile(entry.path().string()) : "-";
    }
    return files;
}

static std::string signArgs(const std::string& key, char keyId)
{
    return "sign --key " + shq(key) + " --key-id " + keyId + " ";
}

TEST(KzolKeygen, WritesTwinKeysButOverwritesOnlyWithForce)
{
    const TempDir dir;
    writeFile(dir.file("public_key_6.pem"), "old key\n");
    EXPECT_EQ(kzol("keygen .", nullptr, dir.path()), 1);
    EXPECT_EQ(snapshot(dir.path()), (Files{{"public_key_6.pem", "old key\n"}}));
    std::string text;
    ASSERT_EQ(kzol("keygen --force .", &text, dir.path(), true), 0) << text;
    EXPECT_NE(readFile(dir.file("public_key_5.pem")), readFile(dir.file("public_key_6.pem")));
    for (const std::string s : {"5", "6"}) {
        const std::string pub = dir.file("public_key_" + s + ".pem"), priv = dir.file("private_key_" + s + ".pem");
        // The public half of the private key, and the public key: the same RSA-2048 key (294 bytes of DER),
        // the public one in the 445-character layout of the built-in keys; the private one for its owner alone.
        std::string half, stored;
        EXPECT_EQ(run("openssl pkey -pubout -outform DER -in " + shq(priv), &half), 0);
        EXPECT_EQ(run("openssl pkey -pubin -outform DER -in " + shq(pub), &stored), 0);
        SCOPED_TRACE(s);
        EXPECT_EQ(half, stored);
        EXPECT_EQ(stored.size(), 294u);
        EXPECT_EQ(readFile(pub).size(), 445u);
        EXPECT_EQ(fs::status(priv).permissions(), fs::perms(0600));
    }
}

// Every run starts from script.sh (with `mode`), a file "other" and a dangling
// symbolic link; afterwards the directory holds the same, plus the signed output
// on success: no temporary file is left.
TEST(KzolSign, SignedFilesAndFailures)
{
    const TempDir keys;
    ASSERT_EQ(run("openssl genrsa -out " + shq(keys.file("rsa1024.pem")) + " 1024 2>/dev/null"), 0);
    const std::string content = "#!/bin/sh\necho \"hello\"\n\x01\x80\xff binary tail\n";
    const std::string key5 = signArgs(devPrivateKey('5'), '5'),
                      signed5 = signedFile(content, "P50", devPrivateKey('5'));
    // output: on success, holding `bytes`; mode: of script.sh
    struct Case {
        std::string input, args;
        int status;
        const char *says, *output = "";
        std::string bytes = "";
        int mode = 0640;
    };
    const std::vector<Case> cases = {
        {content, key5 + "script.sh", 0, "", "script.sh", signed5, 0750},
        // Blanks after a block leave it the file's block; --force replaces it.
        {signed5 + "\r\n", signArgs(devPrivateKey('6'), '6') + "--force --type L script.sh -o signed.sh", 0, "",
         "signed.sh", signedFile(content, "L60", devPrivateKey('6'))},
        {"x", signArgs(devPublicKey('5'), '5') + "script.sh", 2, "not an unencrypted PEM private key"},
        {"x", signArgs(keys.file("rsa1024.pem"), '5') + "script.sh", 2, "RSA key of 1024 bits"},
        {"", key5 + "script.sh", 2, "is empty"},
        {signed5 + "\r\n", key5 + "script.sh", 1, "already carries a"},
        {"x", key5 + "script.sh -o other", 1, "exists; use --force"},
        // Found missing, then refused by the final link: the temporary file goes.
        {"x", key5 + "script.sh -o dangling", 2, "dangling already exists"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const TempDir work;
        writeFile(work.file("script.sh"), c.input);
        writeFile(work.file("other"), "another file\n");
        ASSERT_EQ(::chmod(work.file("script.sh").c_str(), c.mode), 0);
        ASSERT_EQ(::symlink("nowhere", work.file("dangling").c_str()), 0);
        Files expected = snapshot(work.path());
        if (c.status == 0) {
            expected[c.output] = c.bytes;
        }
        std::string text;
        EXPECT_EQ(kzol(c.args, &text, work.path(), true), c.status) << text;
        EXPECT_NE(text.find(c.says), std::string::npos) << text;
        EXPECT_EQ(snapshot(work.path()), expected);
        if (c.status == 0) {
            EXPECT_EQ(fs::status(work.file(c.output)).permissions(), fs::perms(c.mode));
        }
    }
}

static Json::Value parseJson(const std::string& text)
{
    Json::Value value;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors << "\n" << text;
    return value;
}

TEST(KzolInspect, ReportsTheBlockOrWhyThereIsNone)
{
    // json: the members that the row names, as in the --json object.
    struct Case {
        const char* name;
        std::string bytes;
        int status;
        const char* says;
        const char* json;
    };
    const std::vector<Case> cases = {
        {"signed, CRLF after", signedFile("data", "P60", devPrivateKey('6')) + "\r\n", 0, "signature block loaded",
         R"j({"loaded": true, "offset": 7, "type": "P", "key_id": "6", "signature_length": 256,
              "trailing_blanks": 2, "reason": null})j"},
        {"no footprint", "#!/bin/sh\necho \"hello\"\n\x01\x80\xff binary tail\n", 1,
         "no signature block: no \":ZOL\" footprint at E-4",
         R"j({"loaded": false, "offset": null, "type": null, "key_id": null, "signature_length": null,
              "trailing_blanks": 2, "reason": "no \":ZOL\" footprint at E-4 (position 33)"})j"},
        {"bad type", blockAfter("dataX50", "0x0102abcd"), 1, "bad type character 'X'",
         R"j({"loaded": false, "offset": 7, "type": "X", "key_id": "5", "signature_length": null,
              "trailing_blanks": 0, "reason": "bad type character 'X' (0x58): the reader accepts only 'L' and 'P'"})j"},
        // Bytes that are not UTF-8 come out as the characters of their numbers.
        {"raw byte type",
         blockAfter("data\xe9\xff"
                    "0",
                    "0x0102abcd"),
         1, "bad type character", R"j({"type": "\u00e9", "key_id": "\u00ff", "length_field": "AAAACg=="})j"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir dir;
        writeFile(dir.file("target"), c.bytes);
        std::string text, json;
        EXPECT_EQ(kzol("inspect target", &text, dir.path(), true), c.status);
        EXPECT_NE(text.find(c.says), std::string::npos) << text;
        EXPECT_EQ(kzol("inspect --json target", &json, dir.path()), c.status);
        const Json::Value actual = parseJson(json);
        const Json::Value expected = parseJson(c.json);
        for (const std::string& member : expected.getMemberNames()) {
            EXPECT_EQ(actual[member], expected[member]) << member << " in " << json;
        }
    }
}
