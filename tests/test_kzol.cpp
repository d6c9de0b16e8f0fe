// The kzol tool, run as a program: keygen, sign and inspect. Signed files are
// compared with ones made independently of the tool by the openssl command.
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>

#include "bs_context.h"
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

// kzol verify's verdicts over a corpus, with keys parsed once per worker, are
// the library's own (BSContext::verifyFileWithKeys with the same key texts),
// file by file, with both keys given and with key 5 alone; and its reasons
// name why each failed.
TEST(KzolVerify, VerdictsAreTheLibrarysFileByFile)
{
    const std::string content = "#!/bin/sh\necho \"release\"\n";
    const std::string good5 = signedFile(content, "P50", devPrivateKey('5'));
    const std::string good6 = signedFile(content, "P60", devPrivateKey('6'));
    const std::string sig5 = mpiText(opensslSign(content + "P50", devPrivateKey('5')));
    std::string upper = sig5;
    for (std::size_t i = 2; i < upper.size(); ++i) {
        upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(upper[i])));
    }
    std::string big(3U << 20U, 'b');  // beyond what is read whole
    big[77] = '\n';
    const std::string bigSigned = signedFile(big, "P60", devPrivateKey('6'));
    std::string tampered = good5, bigTampered = bigSigned;
    tampered[3] = 'X';
    bigTampered[1000] = 'X';
    const std::string hexRun(20000, 'a');  // a text longer than any signature
    struct Case {
        const char* name;
        std::string bytes;
        const char* reason;  // with both keys
    };
    const std::vector<Case> cases = {
        {"correct5", good5, nullptr},
        {"correct6", good6, nullptr},
        {"tampered", tampered, "hash-mismatch"},
        {"truncated", good5.substr(0, good5.size() - 10), "no-block"},
        {"truncated-text", blockAfter(content + "P50", sig5.substr(0, 300)), "bad-signature-text"},
        {"foreign-key", signedFile(content, "P60", devPrivateKey('5')), "hash-mismatch"},
        {"crlf", good5 + "\r\n", nullptr},
        {"blank-padded", good6 + " \n \r  \n ", nullptr},
        {"nine-blanks", good6 + " \n \r  \n  ", "no-block"},
        {"blanks-among-last", good6.substr(0, good6.size() - 1) + " L", "no-block"},
        {"upper-case-hex", blockAfter(content + "P50", upper), nullptr},
        {"absurd-length", content + "P50" + sig5 + lengthField(0x7fffffff) + ":ZOL", "bad-length-field"},
        {"long-valid-hex", blockAfter(content + "P50", "0x" + hexRun), "bad-signature-text"},
        {"long-bad-pair", blockAfter(content + "P50", "0x" + hexRun + "g0"), "bad-signature-text"},
        {"long-odd", blockAfter(content + "P50", "0x" + hexRun + "a"), "bad-signature-text"},
        {"bad-length-field", content + "P50" + sig5 + "!!!!!!!!:ZOL", "bad-length-field"},
        {"empty-text", blockAfter(content + "P50", ""), "bad-length-field"},
        {"no-content", blockAfter("P50", sig5), "bad-length-field"},
        {"just-0x", blockAfter(content + "P50", "0x"), "bad-signature-text"},
        {"no-prefix", blockAfter(content + "P50", sig5.substr(2)), "bad-signature-text"},
        {"unknown-selector", signedFile(content, "P70", devPrivateKey('5')), "unknown-selector"},
        {"type-L", signedFile(content, "L50", devPrivateKey('5')), "wrong-type"},
        {"type-X", signedFile(content, "X50", devPrivateKey('5')), "wrong-type"},
        {"plain", content, "no-block"},
        {"empty", "", "no-block"},
        {"footprint-only", ":ZOL", "bad-length-field"},
        {"big", bigSigned, nullptr},
        {"big-tampered", bigTampered, "hash-mismatch"},
        {"big-long-hex", blockAfter(big + "P50", "0x" + hexRun), "bad-signature-text"},
    };
    const TempDir dir;
    std::string list;
    for (const auto& c : cases) {
        writeFile(dir.file(c.name), c.bytes);
        list += std::string(c.name) + '\0';
    }
    writeFile(dir.file("list"), list);
    const std::string pem5 = readFile(devPublicKey('5')), pem6 = readFile(devPublicKey('6'));
    for (const bool both : {true, false}) {
        SCOPED_TRACE(both ? "both keys" : "key 5 alone");
        const std::string keys =
            " --pubkey 5=" + shq(devPublicKey('5')) + (both ? " --pubkey 6=" + shq(devPublicKey('6')) : "");
        std::string out;
        kzol("verify -j 2 --json -0 --from list" + keys, &out, dir.path());
        std::istringstream lines(out);
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name);
            std::string line;
            ASSERT_TRUE(std::getline(lines, line));
            const Json::Value json = parseJson(line);
            StderrCapture quiet;  // the library's own lines
            BSContext context;
            const Result expected = context.verifyFileWithKeys(dir.file(c.name), pem5, both ? pem6 : "", "test");
            quiet.finish();
            EXPECT_EQ(json["file"].asString(), c.name);
            EXPECT_EQ(json["result"].asString(), resultName(expected));
            if (both) {
                EXPECT_EQ(json["reason"], c.reason != nullptr ? Json::Value(c.reason) : Json::Value()) << line;
            }
        }
    }
}

// kzol verify over many files: names from a list (lines, NUL-separated, or
// standard input), JSON lines, a reason for each failure, a summary, the exit
// statuses; nothing drawn for progress when standard error is no terminal. The
// library's own lines (platform log and standard error) appear only with -v,
// and without colour codes when standard error is not a terminal.
TEST(KzolVerify, ListsJsonLinesReasonsAndStatuses)
{
    const TempDir dir;
    const std::string content = "echo a\n";
    const std::string good = signedFile(content, "P50", devPrivateKey('5'));
    std::string tampered = good;
    tampered[0] = 'E';
    writeFile(dir.file("a.sh"), good);
    writeFile(dir.file("b.sh"), content);
    writeFile(dir.file("c.sh"), tampered);
    writeFile(dir.file("list"), "a.sh\nb.sh\r\n\n");
    writeFile(dir.file("list0"), std::string("a.sh\0c\nweird\0c.sh\0", 18));
    writeFile(dir.file("c\nweird"), good);
    writeFile(dir.file("zero.sh"), blockAfter("echo zeroP50", "0x"));
    const std::string ab = "a.sh: BS_SIGNATURE_CORRECT\nb.sh: BS_NOT_SIGNED\n";
    // out: all of standard output; err: what standard error holds ("" for nothing at all)
    struct Case {
        std::string args, input;
        int status;
        std::string out, err;
    };
    const std::vector<Case> cases = {
        {"verify --from list", "", 1, ab,
         "kzol: b.sh: no signature block\n2 files: 1 correct, 0 incorrect, 1 not signed, 0 error, 0 unreadable\n"},
        {"verify --from - a.sh", "b.sh\n", 1, ab, "2 files:"},
        {"verify -j 3 -0 --from list0", "", 1,
         "a.sh: BS_SIGNATURE_CORRECT\nc\nweird: BS_SIGNATURE_CORRECT\nc.sh: BS_SIGNATURE_INCORRECT\n",
         "kzol: c.sh: hash mismatch\n"},
        {"verify -q a.sh c.sh", "", 1, "a.sh: BS_SIGNATURE_CORRECT\nc.sh: BS_SIGNATURE_INCORRECT\n", ""},
        {"verify c.sh", "", 1, "BS_SIGNATURE_INCORRECT\n", ""},
        {"verify --json a.sh nothere b.sh", "", 2,
         R"({"file":"a.sh","reason":null,"result":"BS_SIGNATURE_CORRECT","selector":"5","signed_bytes":)" +
             std::to_string(content.size() + 3) +
             "}\n"
             R"({"error":"cannot open nothere: No such file or directory","file":"nothere","reason":"unreadable",)"
             R"("result":null,"selector":null,"signed_bytes":null})"
             "\n"
             R"({"file":"b.sh","reason":"no-block","result":"BS_NOT_SIGNED","selector":null,"signed_bytes":null})"
             "\n"
             R"({"summary":{"correct":1,"error":0,"files":3,"incorrect":0,"not_signed":1,"unreadable":1}})"
             "\n",
         ""},
        {"verify a.sh . b.sh", "", 2, ab, "kzol: . is not a regular file\n"},
        {"verify -0 a.sh", "", 2, "", "-0 reads the --from list"},
        {"verify --from nothere", "", 2, "", "cannot read nothere"},
        {"verify --from /dev/null", "", 2, "", "no file to verify"},
        {"sing a.sh", "", 2, "", "kzol: unknown command 'sing'; did you mean 'sign'?\n"},
        {"verify b.sh", "", 1, "BS_NOT_SIGNED\n", ""},
        {"-v verify b.sh", "", 1, "BS_NOT_SIGNED\n", "Not Signed [ file_path : b.sh ]"},
        {"verify b.sh --verbose", "", 1, "BS_NOT_SIGNED\n", "Not Signed [ file_path : b.sh ]"},
        {"verify zero.sh", "", 1, "BS_ERROR\n", ""},
        {"-v verify zero.sh", "", 1, "BS_ERROR\n", "error during signature check"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        EXPECT_EQ(run("cd " + shq(dir.path()) + " && printf %s " + shq(c.input) + " | " + shq(KZOL_TOOL) + " " +
                          c.args + " 2>" + shq(dir.file("err")),
                      &out),
                  c.status);
        EXPECT_EQ(out, c.out);
        const std::string err = readFile(dir.file("err"));
        EXPECT_EQ(err.empty(), c.err.empty()) << err;
        EXPECT_NE(err.find(c.err), std::string::npos) << err;
        EXPECT_EQ(err.find_first_of("\r\033"), std::string::npos) << err;
    }
    // On a terminal (script(1) gives it one), progress unless -q.
    for (const bool quiet : {false, true}) {
        std::string out;
        EXPECT_EQ(run("cd " + shq(dir.path()) + " && script -qec " +
                          shq(shq(KZOL_TOOL) + " verify" + (quiet ? " -q" : "") + " a.sh c.sh") + " /dev/null",
                      &out),
                  1);
        EXPECT_EQ(out.find("2/2 files, ") != std::string::npos, !quiet) << out;
    }
}

// kzol audit --root: a staging tree as the device will see it (areas and
// excluded directories on the device paths), with a deployment's keys.
TEST(KzolAudit, StagingTreeWithTheDeploymentsKeys)
{
    const TempDir keys, root;
    ASSERT_EQ(kzol("keygen " + shq(keys.path())), 0);
    const std::string content = "#!/bin/sh\necho staged\n";
    writeFile(root.file("opt/app/good5.sh"), signedFile(content, "P50", keys.file("private_key_5.pem")));
    writeFile(root.file("tmp/good6.sh"), signedFile(content, "P60", keys.file("private_key_6.pem")));
    writeFile(root.file("opt/app/plain.sh"), content);
    writeFile(root.file("opt/var/tmp/rpm-tmp/skipped.sh"), content);  // an excluded directory: not walked
    writeFile(root.file("usr/bin/tool.sh"), content);                 // outside the areas
    struct Case {
        std::string args;
        int status;
        std::string classes;  // sorted "DEVICE-PATH CLASS[KEY] REASON" lines
    };
    const std::vector<Case> cases = {
        {"--keys " + shq(keys.path()), 1,
         "/opt/app/good5.sh correct5 \n/opt/app/plain.sh not-signed no-block\n/tmp/good6.sh correct6 \n"},
        {"", 1,
         "/opt/app/good5.sh incorrect hash-mismatch\n/opt/app/plain.sh not-signed no-block\n"
         "/tmp/good6.sh incorrect hash-mismatch\n"},
        {"--keys " + shq(keys.path()) + " /usr /opt/app/good5.sh", 0,
         "/opt/app/good5.sh correct5 \n/usr/bin/tool.sh outside \n"},
        {"--keys " + shq(keys.path()) + " /opt/var", 0, "/opt/var/tmp/rpm-tmp/skipped.sh outside \n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        EXPECT_EQ(kzol("audit -j 2 --json --root " + shq(root.path() + "/") + " " + c.args, &out), c.status);
        std::istringstream in(out);
        std::vector<std::string> lines;
        std::string summary;
        for (std::string line; std::getline(in, line);) {
            const Json::Value json = parseJson(line);
            if (json.isMember("summary")) {
                summary = line;
                continue;
            }
            EXPECT_EQ(json["path"].asString(), root.path() + json["device_path"].asString());
            lines.push_back(json["device_path"].asString() + " " + json["class"].asString() +
                            json.get("key", "").asString() + " " + json.get("reason", "").asString() + "\n");
        }
        std::sort(lines.begin(), lines.end());
        std::string classes;
        for (const std::string& line : lines) {
            classes += line;
        }
        EXPECT_EQ(classes, c.classes);
        EXPECT_NE(summary.find("\"files\":" + std::to_string(lines.size())), std::string::npos) << summary;
    }
    EXPECT_EQ(kzol("audit --root " + shq(root.path()) + " opt"), 2);  // a device path starts with /
}
