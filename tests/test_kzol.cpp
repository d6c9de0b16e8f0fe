// The kzol tool, run as a program: keygen, inspect, verify and audit.

#include <cctype>

#include "bs_context.h"
#include "json_lines.h"

using namespace kzol_test;
namespace fs = std::filesystem;

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

// One corpus, every way to a verdict: BSContext::verifyFile with the built-in
// keys and verifyFileWithKeys with the development keys handed in as texts
// give each row's result and log lines; kzol verify, with keys parsed once per
// worker, gives the result and names why each failed (test_kzol_release pins
// its answer for a selector whose key was not given).
TEST(Verdicts, OneCorpusThroughTheLibraryAndKzolVerify)
{
    const std::string content = "#!/bin/sh\necho \"release\"\n";
    const std::size_t meta = content.size();
    const std::string good5 = signedFile(content, "P50", devPrivateKey('5'));
    const std::string good6 = signedFile(content, "P60", devPrivateKey('6'));
    const std::string sig5 = good5.substr(meta + 3, 514);
    const auto flip = [](std::string s, std::size_t at, char c) { return s.replace(at, 1, 1, c); };
    const auto block5 = [&](const std::string& text) { return blockAfter(content + "P50", text); };
    std::string upper = sig5;
    std::transform(upper.begin() + 2, upper.end(), upper.begin() + 2, [](unsigned char c) { return std::toupper(c); });
    std::string big(3U << 20U, 'b');  // beyond what is read whole
    big[77] = '\n';
    const std::string bigSigned = signedFile(big, "P60", devPrivateKey('6'));
    const std::string hexRun(20000, 'a');  // a text longer than any signature
    const auto vcLine = [](const std::string& function, const std::string& text) {
        return errorLine("verify_context.cpp", function, "VerifyContext::" + function + "(): " + text);
    };
    const std::string badMpi = vcLine("checkMPI", "invalid MPI format");
    const std::string badPair = errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found");
    // The loader's lines (test_signature pins them row by row).
    const std::string noSize = errorLine("signature.cpp", "getFileSize", "Signature::getFileSize() fread error ");
    const std::string noText = errorLine("signature.cpp", "readFromFile", "Signature::readFromFile(): NULL arguments");
    const std::string typeX = errorLine("signature.cpp", "getSignatureInfo",
                                        "Signature::getSignatureInfo(): file to read file signature type[X]");
    const Result ok = BS_SIGNATURE_CORRECT, bad = BS_SIGNATURE_INCORRECT, ns = BS_NOT_SIGNED, error = BS_ERROR;
    // log: the library's lines before that of the outcome (a check that was
    // not carried out has none, and says so on standard error when it logged)
    struct Case {
        const char* name;
        std::string bytes;
        Result result;
        const char* reason;  // kzol's, with both keys
        Lines log = {};
    };
    const std::vector<Case> cases = {
        {"correct5", good5, ok, nullptr},
        {"correct6", good6, ok, nullptr},
        {"tampered", flip(good5, 3, 'X'), bad, "hash-mismatch"},
        {"third-meta-byte", flip(good5, meta + 2, '1'), bad, "hash-mismatch"},
        {"truncated-text", block5(sig5.substr(0, 300)), bad, "bad-signature-text"},
        {"foreign-key", signedFile(content, "P60", devPrivateKey('5')), bad, "hash-mismatch"},
        {"blank-padded", good6 + " \n \r  \n ", ok, nullptr},
        {"nine-blanks", good6 + " \n \r  \n  ", ns, "no-block"},
        {"blanks-among-last", good6.substr(0, good6.size() - 1) + " L", ns, "no-block"},
        {"upper-case-hex", block5(upper), ok, nullptr},
        {"upper-case-X", block5("0X" + sig5.substr(2)), error, "bad-signature-text", {badMpi}},
        {"absurd-length", content + "P50" + sig5 + lengthField(0x7fffffff) + ":ZOL", ns, "bad-length-field"},
        {"long-valid-hex", block5("0x" + hexRun), bad, "bad-signature-text"},
        {"long-bad-pair", block5("0x" + hexRun + "g0"), error, "bad-signature-text", {badPair, badMpi}},
        {"long-odd", block5("0x" + hexRun + "a"), error, "bad-signature-text", {badPair, badMpi}},
        {"bad-length-field", content + "P50" + sig5 + "!!!!!!!!:ZOL", ns, "bad-length-field"},
        {"empty-text", block5(""), ns, "bad-length-field", {noText}},
        {"no-content", blockAfter("P50", sig5), ns, "bad-length-field"},
        {"just-0x", block5("0x"), error, "bad-signature-text", {vcLine("check", "signature is empty")}},
        {"no-prefix", block5(sig5.substr(2)), error, "bad-signature-text", {badMpi}},
        {"unknown-selector", signedFile(content, "P70", devPrivateKey('5')), error, "unknown-selector"},
        {"type-L", signedFile(content, "L50", devPrivateKey('5')), error, "wrong-type"},
        {"type-X", signedFile(content, "X50", devPrivateKey('5')), ns, "wrong-type", {typeX}},
        {"plain", content, ns, "no-block"},
        {"empty", "", ns, "no-block", {noSize}},
        {"footprint-only", ":ZOL", ns, "bad-length-field", {noSize}},
        {"big", bigSigned, ok, nullptr},
        {"big-tampered", flip(bigSigned, 1000, 'X'), bad, "hash-mismatch"},
        {"big-long-hex", blockAfter(big + "P50", "0x" + hexRun), bad, "bad-signature-text"},
    };
    const TempDir dir;
    const std::string pem5 = readFile(devPublicKey('5')), pem6 = readFile(devPublicKey('6'));
    std::string list;
    Lines expected;  // kzol verify's "FILE RESULT REASON" lines
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(c.name);
        writeFile(path, c.bytes);
        list += std::string(c.name) + '\0';
        expected.push_back(std::string(c.name) + " " + resultName(c.result) + " " + (c.reason ? c.reason : "null"));
        const char* outcomes[] = {"", "", "", "", "Not Signed", "Correct Signed", "Incorrect Signed"};
        Lines log = c.log;
        if (c.result != BS_ERROR) {
            log.push_back(checkLine(outcomes[c.result], path, "tester"));
        }
        for (const bool builtIn : {true, false}) {
            clearLog();
            StderrCapture err;
            EXPECT_EQ(builtIn ? BSContext().verifyFile(path, "tester")
                              : BSContext().verifyFileWithKeys(path, pem5, pem6, "tester"),
                      c.result)
                << (builtIn ? "built-in keys" : "keys given");
            const std::string notCarriedOut =
                "[zol][tester] : error during signature check [ file_path : " + path + " ]\n";
            EXPECT_EQ(err.finish(), c.result == BS_ERROR && !c.log.empty() ? notCarriedOut : "");
            EXPECT_EQ(loggedLines(), log);
        }
    }
    // The keys handed in the wrong way round, and none for the file's selector.
    clearLog();
    EXPECT_EQ(BSContext().verifyFileWithKeys(dir.file("correct5"), pem6, pem5, "tester"), BS_SIGNATURE_INCORRECT);
    EXPECT_EQ(BSContext().verifyFileWithKeys(dir.file("correct6"), pem5, "", "tester"), BS_ERROR);
    EXPECT_EQ(loggedLines(), Lines{checkLine("Incorrect Signed", dir.file("correct5"), "tester")});
    writeFile(dir.file("list"), list);
    std::string out;
    kzol("verify -j 2 --json -0 --from list --pubkey 5=" + shq(devPublicKey('5')) +
             " --pubkey 6=" + shq(devPublicKey('6')),
         &out, dir.path());
    const auto verdict = [](const Json::Value& file) {
        const Json::Value& reason = file["reason"];
        return file["file"].asString() + " " + file["result"].asString() + " " +
               (reason.isNull() ? "null" : reason.asString());
    };
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(jsonLines(out, verdict), expected);
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
// excluded directories on the device paths), with a deployment's keys made by
// kzol keygen: twin pairs (the rows correct5 and correct6 show each private
// half signing for its public one), the public keys in the 445-character
// layout of the built-in keys, the private ones for their owner alone, and
// keys already there overwritten only with --force.
TEST(KzolAudit, StagingTreeWithTheDeploymentsKeys)
{
    const TempDir keys, root;
    writeFile(keys.file("public_key_6.pem"), "old key\n");
    EXPECT_EQ(kzol("keygen " + shq(keys.path())), 1);
    EXPECT_EQ(snapshot(keys.path()), (Contents{{"public_key_6.pem", "old key\n"}}));
    ASSERT_EQ(kzol("keygen --force " + shq(keys.path())), 0);
    EXPECT_NE(readFile(keys.file("public_key_5.pem")), readFile(keys.file("public_key_6.pem")));
    for (const std::string s : {"5", "6"}) {
        EXPECT_EQ(readFile(keys.file("public_key_" + s + ".pem")).size(), 445u) << s;
        EXPECT_EQ(fs::status(keys.file("private_key_" + s + ".pem")).permissions(), fs::perms(0600)) << s;
    }
    const std::string content = "#!/bin/sh\necho staged\n";
    writeFile(root.file("opt/app/good5.sh"), signedFile(content, "P50", keys.file("private_key_5.pem")));
    writeFile(root.file("tmp/good6.sh"), signedFile(content, "P60", keys.file("private_key_6.pem")));
    writeFile(root.file("opt/app/plain.sh"), content);
    writeFile(root.file("opt/var/tmp/rpm-tmp/skipped.sh"), content);  // an excluded directory: not walked
    writeFile(root.file("usr/bin/tool.sh"), content);                 // outside the areas
    struct Case {
        std::string args;
        int status;
        Lines classes;  // sorted "DEVICE-PATH CLASS[KEY] REASON" lines
    };
    const std::vector<Case> cases = {
        {"--keys " + shq(keys.path()),
         1,
         {"/opt/app/good5.sh correct5 ", "/opt/app/plain.sh not-signed no-block", "/tmp/good6.sh correct6 "}},
        {"",
         1,
         {"/opt/app/good5.sh incorrect hash-mismatch", "/opt/app/plain.sh not-signed no-block",
          "/tmp/good6.sh incorrect hash-mismatch"}},
        {"--keys " + shq(keys.path()) + " /usr /opt/app/good5.sh",
         0,
         {"/opt/app/good5.sh correct5 ", "/usr/bin/tool.sh outside "}},
        {"--keys " + shq(keys.path()) + " /opt/var", 0, {"/opt/var/tmp/rpm-tmp/skipped.sh outside "}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        std::string out;
        EXPECT_EQ(kzol("audit -j 2 --json --root " + shq(root.path() + "/") + " " + c.args, &out), c.status);
        const Lines lines = jsonLines(out, [&](const Json::Value& file) {
            EXPECT_EQ(file["path"].asString(), root.path() + file["device_path"].asString());
            return file["device_path"].asString() + " " + file["class"].asString() + file.get("key", "").asString() +
                   " " + file.get("reason", "").asString();
        });
        EXPECT_EQ(lines, c.classes);
        EXPECT_NE(out.find("\"files\":" + std::to_string(lines.size()) + ","), std::string::npos) << out;
    }
    EXPECT_EQ(kzol("audit --root " + shq(root.path()) + " opt"), 2);  // a device path starts with /
}
