// kzol for release engineering, run as a program: a deployment's own keys
// (verify --keys, keys), many files in one call, early refusal of the wrong
// key or type, large files read in pieces, a key in a PKCS#11 token, and the
// library's log lines held back unless asked for.
#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <sstream>
#include <vector>

#include "test_support.h"

using namespace kzol_test;
namespace fs = std::filesystem;

static std::string sha256Hex(const std::string& pem)
{
    std::string out;
    const std::string cmd = "openssl pkey -pubin -outform DER -in " + shq(pem) + " | openssl dgst -sha256 -r";
    EXPECT_EQ(run(cmd, &out), 0);
    return out.substr(0, 64);
}

// A deployment's keys, made once for the suite by the tool itself.
class KzolRelease : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_keys = new TempDir();
        ASSERT_EQ(kzol("keygen " + shq(s_keys->path())), 0);
    }
    static void TearDownTestSuite()
    {
        delete s_keys;
        s_keys = nullptr;
    }
    static std::string key(const char* name) { return s_keys->file(name); }
    static TempDir* s_keys;
};
TempDir* KzolRelease::s_keys = nullptr;

namespace {

// One kzol run of a table: its arguments, exit status and standard output.
struct ToolCase {
    const char* name;
    std::string args;
    int status;
    std::string out;
};

// Sorted "PATH CLASS" lines, one per file, from the audit's JSON lines.
std::string auditClasses(const std::string& json)
{
    std::vector<std::string> lines;
    std::istringstream in(json);
    for (std::string text; std::getline(in, text);) {
        Json::Value file;
        std::string errors;
        std::istringstream line(text);
        if (!Json::parseFromStream(Json::CharReaderBuilder(), line, &file, &errors)) {
            return "unparsable audit line: " + text + ": " + errors;
        }
        if (!file.isMember("summary")) {
            lines.push_back(file["path"].asString() + " " + file["class"].asString() + file.get("key", "").asString());
        }
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

// The same lines from kzol verify's "PATH: RESULT" lines.
std::string verifyClasses(const std::string& output)
{
    const std::map<std::string, std::string> classes = {{"BS_SIGNATURE_CORRECT", "correct"},
                                                        {"BS_NOT_SIGNED", "not-signed"},
                                                        {"BS_SIGNATURE_INCORRECT", "incorrect"},
                                                        {"BS_ERROR", "error"}};
    std::vector<std::string> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        const std::size_t colon = line.rfind(": ");
        const auto found = colon != std::string::npos ? classes.find(line.substr(colon + 2)) : classes.end();
        lines.push_back(found != classes.end() ? line.substr(0, colon) + " " + found->second : "unexpected: " + line);
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

}  // namespace

TEST_F(KzolRelease, BatchSignThenVerifyWithTheDeploymentsKeys)
{
    const TempDir work;
    std::string list;
    for (int i = 0; i < 12; ++i) {
        const std::string name = "s" + std::to_string(i) + ".sh";
        writeFile(work.file(name), "#!/bin/sh\necho " + std::to_string(i) + "\n");
        list += name + " ";
    }
    std::string out;
    ASSERT_EQ(kzol("sign -j 2 --keys " + shq(s_keys->path()) + " --key " + shq(key("private_key_5.pem")) +
                       " --key-id 5 " + list,
                   &out, work.path(), true),
              0)
        << out;
    EXPECT_NE(out.find("12 signed, 0 skipped, 0 failed\n"), std::string::npos) << out;
    // One byte changed after signing.
    std::string tampered = readFile(work.file("s3.sh"));
    tampered[11] = 'X';
    writeFile(work.file("s3.sh"), tampered);

    std::string expected;
    for (int i = 0; i < 12; ++i) {
        expected +=
            "s" + std::to_string(i) + ".sh: " + (i == 3 ? "BS_SIGNATURE_INCORRECT" : "BS_SIGNATURE_CORRECT") + "\n";
    }
    const std::string keys5 = " --pubkey 5=" + shq(key("public_key_5.pem")) + " ";
    const std::vector<ToolCase> cases = {
        {"deployment keys", "verify --keys " + shq(s_keys->path()) + " " + list, 1, expected},
        {"one file, bare result", "verify --keys " + shq(s_keys->path()) + " s0.sh", 0, "BS_SIGNATURE_CORRECT\n"},
        {"built-in keys", "verify s0.sh", 1, "BS_SIGNATURE_INCORRECT\n"},
        {"single public key", "verify" + keys5 + "s1.sh", 0, "BS_SIGNATURE_CORRECT\n"},
        {"the other selector's key given", "verify --pubkey 5=" + shq(key("public_key_6.pem")) + " s1.sh", 1,
         "BS_SIGNATURE_INCORRECT\n"},
        {"selector without a given key", "verify --pubkey 6=" + shq(key("public_key_6.pem")) + " s1.sh", 1,
         "BS_ERROR\n"},
        {"--pubkey over the directory",
         "verify --keys " + shq(s_keys->path()) + " --pubkey 5=" + shq(devPublicKey('5')) + " s1.sh", 1,
         "BS_SIGNATURE_INCORRECT\n"},
        {"missing file among good ones", "verify" + keys5 + "s0.sh nothere s1.sh", 2,
         "s0.sh: BS_SIGNATURE_CORRECT\ns1.sh: BS_SIGNATURE_CORRECT\n"},
        {"private key as public key", "verify --pubkey 5=" + shq(key("private_key_5.pem")) + " s0.sh", 2, ""},
        {"empty key directory", "verify --keys . s0.sh", 2, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text;
        EXPECT_EQ(kzol(c.args, &text, work.path()), c.status);
        EXPECT_EQ(text, c.out);
    }
}

TEST_F(KzolRelease, KeysNamesFingerprintsAndTheDevelopmentKeys)
{
    const std::string dev5 = sha256Hex(devPublicKey('5')), dev6 = sha256Hex(devPublicKey('6'));
    const std::string mine5 = sha256Hex(key("public_key_5.pem")), mine6 = sha256Hex(key("public_key_6.pem"));
    const std::string builtIn =
        "built-in key 5: SHA256:" + dev5 + "\nbuilt-in key 6: SHA256:" + dev6 + "\n" +
        "WARNING: this build verifies with the DEVELOPMENT keys of the source tree (keys/dev); their private halves"
        " are public, anyone can sign for it: never ship it\n";
    const std::vector<ToolCase> cases = {
        {"built-in only", "keys", 0, builtIn},
        {"the tree's own keys", "keys --keys " + shq(std::string(KZOL_SOURCE_DIR) + "/keys/dev"), 0,
         builtIn + "given key 5: SHA256:" + dev5 + " (matches the built-in key)\ngiven key 6: SHA256:" + dev6 +
             " (matches the built-in key)\n"},
        {"a deployment's keys", "keys --keys " + shq(s_keys->path()), 1,
         builtIn + "given key 5: SHA256:" + mine5 + " (DIFFERS from the built-in key)\ngiven key 6: SHA256:" + mine6 +
             " (DIFFERS from the built-in key)\n"},
        {"one key given", "keys --pubkey 6=" + shq(devPublicKey('6')), 1,
         builtIn + "given key 5: none\ngiven key 6: SHA256:" + dev6 + " (matches the built-in key)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text;
        EXPECT_EQ(kzol(c.args, &text), c.status);
        EXPECT_EQ(text, c.out);
    }
}

// Each row signs a fresh copy of a.sh (and b.sh); `written` says whether a.sh
// was replaced, `says` what the tool printed (both streams).
TEST_F(KzolRelease, KeyAndTypeCheckedBeforeAnyFileIsTouched)
{
    const std::string content = "#!/bin/sh\necho a\n";
    const std::string dev5 = " --key " + shq(devPrivateKey('5')) + " ";
    const std::string dev6 = " --key " + shq(devPrivateKey('6')) + " ";
    const std::string fingerprint5 = "signing key: SHA256:" + sha256Hex(devPublicKey('5')) + "\n";
    struct Case {
        const char* name;
        std::string args;
        int status;
        bool written;
        const char* says;
    };
    const std::vector<Case> cases = {
        {"key 6 named as selector 5", "sign" + dev6 + "--key-id 5 a.sh", 2, false,
         "is the private half of the built-in key 6, not of key 5: its signatures would never verify; use --key-id 6"},
        {"deployment key 5 as 6 against its keys",
         "sign --keys " + shq(s_keys->path()) + " --key " + shq(key("private_key_5.pem")) + " --key-id 6 a.sh", 2,
         false, "is the private half of the given key 5, not of key 6"},
        {"unknown key warned about", "sign --key " + shq(key("private_key_5.pem")) + " --key-id 5 a.sh", 0, true,
         "kzol: warning: "},
        {"fingerprint of the key used", "sign" + dev5 + "--key-id 5 a.sh", 0, true, fingerprint5.c_str()},
        {"type L refused", "sign" + dev5 + "--key-id 5 --type L a.sh", 2, false,
         "kzol: type L blocks select no key in the library"},
        {"type L with --force", "sign" + dev5 + "--key-id 5 --type L --force a.sh", 0, true, "type L, key 5"},
        {"-o with two files", "sign" + dev5 + "--key-id 5 -o out a.sh b.sh", 2, false, "kzol: -o takes one FILE"},
        {"one missing among several", "sign" + dev5 + "--key-id 5 -j 2 a.sh missing b.sh", 1, true,
         "2 signed, 0 skipped, 1 failed"},
        {"list on standard input", "sign" + dev5 + "--key-id 5 --from - < list", 0, true,
         "2 signed, 0 skipped, 0 failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir work;
        writeFile(work.file("a.sh"), content);
        writeFile(work.file("b.sh"), content);
        writeFile(work.file("list"), "a.sh\n\nb.sh\n");
        std::string text;
        const std::string command = "cd " + shq(work.path()) + " && " + shq(KZOL_TOOL) + " " + c.args + " 2>&1";
        EXPECT_EQ(run(command, &text), c.status);
        EXPECT_NE(text.find(c.says), std::string::npos) << text;
        EXPECT_EQ(readFile(work.file("a.sh")) != content, c.written);
    }
}

TEST_F(KzolRelease, AlreadySignedFilesAreSkippedInABatch)
{
    const TempDir work;
    writeFile(work.file("new.sh"), "echo new\n");
    writeFile(work.file("old.sh"), signedFile("echo old\n", "P50", devPrivateKey('5')));
    std::string text;
    EXPECT_EQ(kzol("sign --key " + shq(devPrivateKey('5')) + " --key-id 5 new.sh old.sh", &text, work.path(), true), 0);
    EXPECT_NE(text.find("1 signed, 1 skipped, 0 failed"), std::string::npos) << text;
    EXPECT_EQ(readFile(work.file("old.sh")), signedFile("echo old\n", "P50", devPrivateKey('5')));
}

// A batch gives its files their names in rounds, one flush for each round:
// every good file is signed exactly as the openssl command signs it, in
// either directory, however few descriptors the process may open; the ones
// that fail are counted and leave the rest alone; no temporary file is left.
TEST_F(KzolRelease, BatchCommitsEveryGoodFileInRounds)
{
    struct Case {
        const char* name;
        std::string limit;  // a shell command run before kzol
    };
    const std::vector<Case> cases = {
        {"descriptors as usual", "true"},
        {"few descriptors", "ulimit -Sn 20"},
    };
    const std::size_t bigSize = (5 << 20) + 7;  // written while the next piece is read
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir work;
        std::filesystem::create_directory(work.file("a"));
        std::filesystem::create_directory(work.file("b"));
        std::map<std::string, std::string> contents;
        for (int i = 0; i < 40; ++i) {
            contents["a/" + std::to_string(i) + ".sh"] = "#!/bin/sh\necho " + std::to_string(i) + "\n";
        }
        contents["b/x.sh"] = "echo x\n";
        std::string big(bigSize, '\0');
        for (std::size_t i = 0; i < big.size(); ++i) {
            big[i] = static_cast<char>((i * 2654435761U) >> 11);
        }
        contents["b/big"] = big;
        std::string list = "nothere\na\n";
        for (const auto& [name, content] : contents) {
            writeFile(work.file(name), content);
            list += name + "\n";
        }
        writeFile(work.file("list"), list);

        std::string out;
        EXPECT_EQ(run("cd " + shq(work.path()) + " && " + c.limit + " && " + shq(KZOL_TOOL) + " sign -j 2 --key " +
                          shq(devPrivateKey('5')) + " --key-id 5 --from list 2>/dev/null",
                      &out),
                  1);
        EXPECT_NE(out.find("42 signed, 0 skipped, 2 failed\n"), std::string::npos) << out;
        for (const auto& [name, content] : contents) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(readFile(work.file(name)) == signedFile(content, "P50", devPrivateKey('5')));
        }
        for (const char* dir : {"a", "b"}) {
            for (const auto& entry : std::filesystem::directory_iterator(work.file(dir))) {
                EXPECT_EQ(entry.path().filename().string().find(".kzol-"), std::string::npos) << entry.path();
            }
        }
    }
}

// Signing reads in 1 MiB pieces: files around the piece size come out as the
// openssl command signs them (PKCS#1 v1.5 signatures are deterministic), also
// when an old block is replaced.
TEST_F(KzolRelease, LargeFilesSignedPieceByPiece)
{
    const TempDir work;
    const std::size_t mib = 1 << 20;
    // From 4 MiB on, one thread reads and hashes while another writes.
    for (const std::size_t size : {mib - 1, mib, mib + 1, 2 * mib + 4097, 4 * mib + 1}) {
        SCOPED_TRACE(size);
        std::string content(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            content[i] = static_cast<char>((i * 131) >> 7);
        }
        const std::string expected = signedFile(content, "P60", devPrivateKey('6'));
        writeFile(work.file("big"), content);
        EXPECT_EQ(kzol("sign --key " + shq(devPrivateKey('6')) + " --key-id 6 big", nullptr, work.path()), 0);
        EXPECT_TRUE(readFile(work.file("big")) == expected);
        // Re-signed with the other key: the old block goes, the content stays.
        writeFile(work.file("big"), signedFile(content, "P50", devPrivateKey('5')) + "\n");
        EXPECT_EQ(kzol("sign --force --key " + shq(devPrivateKey('6')) + " --key-id 6 big", nullptr, work.path()), 0);
        EXPECT_TRUE(readFile(work.file("big")) == expected);
    }
}

// The library's own lines (platform log and standard error) appear only with
// -v, and without colour codes when standard error is not a terminal.
TEST_F(KzolRelease, LibraryLinesOnlyWhenAskedFor)
{
    const TempDir work;
    writeFile(work.file("plain.sh"), "echo plain\n");
    writeFile(work.file("zero.sh"), blockAfter("echo zeroP50", "0x"));
    struct Case {
        const char* name;
        std::string args;
        const char* has;
        bool empty;
    };
    const std::vector<Case> cases = {
        {"quiet by default", "verify plain.sh", "", true},
        {"platform log with -v first", "-v verify plain.sh", "Not Signed [ file_path : plain.sh ]", false},
        {"platform log with -v after", "verify plain.sh --verbose", "Not Signed [ file_path : plain.sh ]", false},
        {"library's own stderr line held back", "verify zero.sh", "", true},
        {"library's own stderr line with -v", "-v verify zero.sh", "error during signature check", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string err;
        EXPECT_EQ(run("cd " + shq(work.path()) + " && " + shq(KZOL_TOOL) + " " + c.args + " 2>&1 >/dev/null", &err), 1);
        EXPECT_EQ(err.empty(), c.empty) << err;
        EXPECT_NE(err.find(c.has), std::string::npos) << err;
        EXPECT_EQ(err.find('\033'), std::string::npos) << err;
    }
}

// A key in a SoftHSM2 token made here: signatures equal the PEM key's, and the
// token's failures are named.
TEST_F(KzolRelease, KeyInAPkcs11Token)
{
    const char* module = "/usr/lib/softhsm/libsofthsm2.so";
    ASSERT_TRUE(fs::exists(module)) << "softhsm2 is installed by scripts/bootstrap";
    const TempDir hsm, work;
    writeFile(hsm.file("softhsm2.conf"),
              "directories.tokendir = " + hsm.file("tokens") + "\nobjectstore.backend = file\n");
    fs::create_directories(hsm.file("tokens"));
    const std::string env = "SOFTHSM2_CONF=" + shq(hsm.file("softhsm2.conf")) + " ";
    ASSERT_EQ(run(env + "softhsm2-util --init-token --free --label release --so-pin 9999 --pin 1234 >/dev/null"), 0);
    ASSERT_EQ(run("openssl pkcs8 -topk8 -nocrypt -in " + shq(devPrivateKey('5')) + " -out " + shq(hsm.file("k5.p8"))),
              0);
    ASSERT_EQ(run(env + "softhsm2-util --import " + shq(hsm.file("k5.p8")) +
                  " --token release --label key5 --id 05 --pin 1234 >/dev/null"),
              0);
    writeFile(hsm.file("pin"), "1234\n");

    const std::string content = "#!/bin/sh\necho from the token\n";
    const std::string uri = "pkcs11:token=release;object=key5?module-path=" + std::string(module);
    // extra: options after the key; env: before the command
    struct Case {
        const char* name;
        std::string key;
        std::string extra;
        int status;
        const char* says;
        std::string env = "";
    };
    const std::vector<Case> cases = {
        {"PIN in the URI", uri + "&pin-value=1234", "", 0, "signed a.sh"},
        {"PIN file, key by id", "pkcs11:token=release;id=%05",
         "--module " + std::string(module) + " --pin-file " + shq(hsm.file("pin")), 0, "signed a.sh"},
        {"PIN from the environment", uri, "", 0, "signed a.sh", "KZOL_PKCS11_PIN=1234 "},
        {"no PIN anywhere", uri, "", 2, "the token needs a PIN"},
        {"wrong PIN", uri + "&pin-value=4321", "", 2, "PIN refused by the token"},
        {"no such key", "pkcs11:token=release;object=key6?pin-value=1234&module-path=" + std::string(module), "", 2,
         "no private key in the token matches"},
        {"no such token", "pkcs11:token=other?module-path=" + std::string(module), "", 2,
         "no token labelled \"other\""},
        {"no module", "pkcs11:token=release", "", 2, "needs its module"},
        {"mistyped attribute", "pkcs11:tokn=release?module-path=" + std::string(module), "", 2,
         "unknown path attribute \"tokn\""},
        {"bad escape", "pkcs11:token=rel%4?module-path=" + std::string(module), "", 2, "bad percent-escape"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(work.file("a.sh"), content);
        std::string text;
        EXPECT_EQ(run("cd " + shq(work.path()) + " && " + env + c.env + shq(KZOL_TOOL) + " sign --key " + shq(c.key) +
                          " --key-id 5 " + c.extra + " a.sh 2>&1",
                      &text),
                  c.status);
        EXPECT_NE(text.find(c.says), std::string::npos) << text;
        if (c.status == 0) {
            EXPECT_TRUE(readFile(work.file("a.sh")) == signedFile(content, "P50", devPrivateKey('5')));
            EXPECT_EQ(
                kzol("verify --keys " + shq(std::string(KZOL_SOURCE_DIR) + "/keys/dev") + " a.sh", &text, work.path()),
                0);
        }
    }
    // A disable certificate from the token.
    std::string text;
    EXPECT_EQ(run(env + shq(KZOL_TOOL) + " cert --key " + shq(uri + "&pin-value=1234") + " --key-id 5 --duid TV-7 -o " +
                      shq(work.file("RTZOLOFF.cer")) + " 2>&1",
                  &text),
              0)
        << text;
}

// A tree of a few hundred files: the audit's class of each file is what
// `kzol verify` answers for it, its summary counts them, and links and
// special files are not opened.
TEST_F(KzolRelease, AuditAgreesWithVerifyFileByFile)
{
    const TempDir tree("/tmp");  // a user-writable area
    std::string toSign5, toSign6;
    for (int i = 0; i < 240; ++i) {
        const std::string name = "d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".sh";
        writeFile(tree.file(name), "#!/bin/sh\necho " + std::to_string(i) + "\n");
        if (i % 4 == 1) {
            toSign5 += name + "\n";
        } else if (i % 4 == 2) {
            toSign6 += name + "\n";
        }
    }
    writeFile(tree.file("list5"), toSign5);
    writeFile(tree.file("list6"), toSign6);
    ASSERT_EQ(kzol("sign -j 2 --key " + shq(devPrivateKey('5')) + " --key-id 5 --from list5", nullptr, tree.path()), 0);
    ASSERT_EQ(kzol("sign -j 2 --key " + shq(devPrivateKey('6')) + " --key-id 6 --from list6", nullptr, tree.path()), 0);
    fs::remove(tree.file("list5"));
    fs::remove(tree.file("list6"));
    for (int i = 2; i < 240; i += 40) {  // signed with key 6, then tampered
        const std::string name = tree.file("d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".sh");
        std::string bytes = readFile(name);
        bytes[0] = 'X';
        writeFile(name, bytes);
    }
    writeFile(tree.file("typeL.sh"), signedFile("echo L\n", "L50", devPrivateKey('5')));
    ASSERT_EQ(::mkfifo(tree.file("fifo").c_str(), 0600), 0);
    fs::create_symlink("/etc/hostname", tree.file("link-out"));

    // "path class" of every file, from the audit and from verify.
    std::string auditJson, verifyOutput, table;
    ASSERT_EQ(run(shq(KZOL_TOOL) + " audit -j 2 --json " + shq(tree.path()), &auditJson), 1);
    run("cd / && find " + shq(tree.path()) + " -type f -print0 | xargs -0 " + shq(KZOL_TOOL) + " verify",
        &verifyOutput);
    const std::string audited = auditClasses(auditJson), verified = verifyClasses(verifyOutput);
    std::string withoutKeys = audited, specials;
    for (std::size_t at = withoutKeys.find("correct5"); at != std::string::npos; at = withoutKeys.find("correct5")) {
        withoutKeys.erase(at + 7, 1);
    }
    for (std::size_t at = withoutKeys.find("correct6"); at != std::string::npos; at = withoutKeys.find("correct6")) {
        withoutKeys.erase(at + 7, 1);
    }
    const std::string fifoLine = tree.file("fifo") + " special\n";
    ASSERT_NE(withoutKeys.find(fifoLine), std::string::npos) << audited;
    withoutKeys.erase(withoutKeys.find(fifoLine), fifoLine.size());
    EXPECT_EQ(withoutKeys, verified);
    EXPECT_EQ(audited.find("link-out"), std::string::npos);

    EXPECT_EQ(kzol("audit " + shq(tree.path()), &table), 1);
    struct Row {
        const char* title;
        int count;
    };
    const std::vector<Row> rows = {{"outside the areas (runs unchecked)", 0},
                                   {"signed correctly, key 5", 60},
                                   {"signed correctly, key 6", 54},
                                   {"not signed", 120},
                                   {"signed incorrectly", 6},
                                   {"signature check error", 1},
                                   {"special file (not opened)", 1},
                                   {"would be refused", 128}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.title);
        char line[80];
        std::snprintf(line, sizeof(line), "%-36s %8d\n", r.title, r.count);
        EXPECT_NE(table.find(line), std::string::npos) << table;
    }
    // Outside the areas nothing is refused.
    const TempDir outside("/var/tmp");
    writeFile(outside.file("plain.sh"), "echo plain\n");
    EXPECT_EQ(kzol("audit " + shq(outside.path())), 0);
    std::string outsideJson;
    EXPECT_EQ(run(shq(KZOL_TOOL) + " audit --json " + shq(outside.path()), &outsideJson), 0);
    EXPECT_EQ(auditClasses(outsideJson), outside.file("plain.sh") + " outside\n");
}
