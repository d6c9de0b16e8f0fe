// kzol for release engineering, run as a program: a deployment's own keys
// (verify --keys, keys), signing, many files in one call, early refusal of the
// wrong key or type, large files read in pieces, a key in a PKCS#11 token, and root
// signing a tree that another user wrote.
#include <sched.h>
#include <sys/xattr.h>

#include <array>
#include <iostream>

#include "json_lines.h"
#include "race.h"

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
    static void SetUpTestSuite() { ASSERT_EQ(kzol("keygen " + shq(s_keys.path())), 0); }
    static std::string key(const char* name) { return s_keys.file(name); }
    static const TempDir s_keys;
};
const TempDir KzolRelease::s_keys;

namespace {

// Signing with the development key 5: options follow.
const std::string c_sign5 = "sign --key " + shq(devPrivateKey('5')) + " --key-id 5 ";

// `kzol ARGS` run by the shell in `dir` after `before` (variables, or a
// command and "&&"), both output streams in `text`: its exit status.
int kzolIn(const std::string& dir, const std::string& args, std::string* text, const std::string& before = "")
{
    return run("cd " + shq(dir) + " && " + before + shq(KZOL_TOOL) + " " + args + " 2>&1", text);
}

// One run of a table: its arguments, exit status, and its output.
struct ToolCase {
    const char* name;
    std::string args;
    int status;
    std::string out;
};

// Runs every case in `dir`: its status, and all of its standard output or
// (`part`) a part of both streams.
void expectRuns(const std::vector<ToolCase>& cases, const std::string& dir = ".", bool part = false)
{
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text;
        EXPECT_EQ(part ? kzolIn(dir, c.args, &text) : kzol(c.args, &text, dir), c.status);
        EXPECT_EQ(part && text.find(c.out) != std::string::npos ? c.out : text, c.out);
    }
}

// "PATH CLASS" of a file, from a JSON line of the audit or of kzol verify.
std::string classOf(const Json::Value& file)
{
    static const std::map<std::string, std::string> classes = {{"BS_SIGNATURE_CORRECT", "correct"},
                                                               {"BS_NOT_SIGNED", "not-signed"},
                                                               {"BS_SIGNATURE_INCORRECT", "incorrect"},
                                                               {"BS_ERROR", "error"}};
    const auto found = classes.find(file["result"].asString());
    const std::string name =
        file.isMember("result") ? (found != classes.end() ? found->second : "?") : file["class"].asString();
    return file.get("path", file["file"]).asString() + " " + name;
}

}  // namespace

// A batch signed with a deployment's key verifies with its keys and no other;
// kzol keys names every key by its fingerprint and the development ones.
TEST_F(KzolRelease, BatchSignThenVerifyAndNameTheDeploymentsKeys)
{
    const TempDir work;
    writeFile(work.file("s0.sh"), "#!/bin/sh\necho 0\n");
    writeFile(work.file("s1.sh"), "#!/bin/sh\necho 1\n");
    expectRuns({{"batch",
                 "sign -j 2 --keys " + shq(s_keys.path()) + " --key " + shq(key("private_key_5.pem")) +
                     " --key-id 5 s0.sh s1.sh",
                 0, "2 signed, 0 skipped, 0 failed\n"}},
               work.path(), true);
    std::string tampered = readFile(work.file("s0.sh"));  // one byte changed after signing
    tampered[11] = 'X';
    writeFile(work.file("s0.sh"), tampered);
    const std::string dev5 = sha256Hex(devPublicKey('5')), dev6 = sha256Hex(devPublicKey('6'));
    const std::string mine5 = sha256Hex(key("public_key_5.pem")), mine6 = sha256Hex(key("public_key_6.pem"));
    const std::string builtIn =
        "built-in key 5: SHA256:" + dev5 + "\nbuilt-in key 6: SHA256:" + dev6 + "\n" +
        "WARNING: this build verifies with the DEVELOPMENT keys of the source tree (keys/dev); their private halves"
        " are public, anyone can sign for it: never ship it\n";
    expectRuns(
        {
            {"deployment keys", "verify --keys " + shq(s_keys.path()) + " s0.sh s1.sh", 1,
             "s0.sh: BS_SIGNATURE_INCORRECT\ns1.sh: BS_SIGNATURE_CORRECT\n"},
            {"built-in keys", "verify s1.sh", 1, "BS_SIGNATURE_INCORRECT\n"},
            {"--pubkey over the directory",
             "verify --keys " + shq(s_keys.path()) + " --pubkey 5=" + shq(devPublicKey('5')) + " s1.sh", 1,
             "BS_SIGNATURE_INCORRECT\n"},
            {"private key as public key", "verify --pubkey 5=" + shq(key("private_key_5.pem")) + " s1.sh", 2, ""},
            {"empty key directory", "verify --keys . s1.sh", 2, ""},
            {"built-in only", "keys", 0, builtIn},
            {"the tree's own keys", "keys --keys " + shq(std::string(KZOL_SOURCE_DIR) + "/keys/dev"), 0,
             builtIn + "given key 5: SHA256:" + dev5 +
                 " (matches the built-in key), the DEVELOPMENT key 5 of keys/dev\ngiven key 6: SHA256:" + dev6 +
                 " (matches the built-in key), the DEVELOPMENT key 6 of keys/dev\n"},
            {"a deployment's keys", "keys --keys " + shq(s_keys.path()), 1,
             builtIn + "given key 5: SHA256:" + mine5 + " (DIFFERS from the built-in key)\ngiven key 6: SHA256:" +
                 mine6 + " (DIFFERS from the built-in key)\n"},
            {"one key given", "keys --pubkey 6=" + shq(devPublicKey('6')), 1,
             builtIn + "given key 5: none\ngiven key 6: SHA256:" + dev6 +
                 " (matches the built-in key), the DEVELOPMENT key 6 of keys/dev\n"},
        },
        work.path());
}

// Each row signs in a fresh directory: a.sh, b.sh and c.sh unsigned, old.sh
// signed with key 5, crlf.sh too but with blanks after its block, other.sh with
// key 6, tampered.sh changed after signing, the key files and lists, all of
// mode 0750, and a dangling link. Afterwards the directory holds the same but
// for the files `changed` names, signed as the openssl command signs (`after`),
// of the mode of the file they were made from: no temporary file is left.
// `says` is what the tool printed (both streams), `unsaid` what it must not.
// Blanks after a block leave it the file's block, which --force replaces. A
// resumed batch skips, quietly, only a file whose block this key made and that
// still verifies; a block of another key or a tampered one fails its file
// unless --force; a file named twice is signed once.
TEST_F(KzolRelease, SignedFilesAndFailures)
{
    const std::string content = "#!/bin/sh\necho \"a\"\n\x01\x80\xff binary tail\n";
    const std::string fingerprint5 = "signing key: SHA256:" + sha256Hex(devPublicKey('5')) + "\n";
    const std::string a5 = signedFile(content, "P50", devPrivateKey('5'));
    std::string tampered = signedFile("echo tampered\n", "P50", devPrivateKey('5'));
    tampered[5] = 'X';
    std::string encrypted, rsa1024;
    ASSERT_EQ(run("openssl pkey -in " + shq(devPrivateKey('5')) + " -aes256 -passout 'pass:open sesame'", &encrypted),
              0);
    ASSERT_EQ(run("openssl genrsa 1024 2>/dev/null", &rsa1024), 0);
    const Contents files = {
        {"a.sh", content},
        {"list", "a.sh\n\nb.sh\n"},
        {"empty.pem", ""},
        {"pass", "open sesame\n"},
        {"enc.pem", encrypted},
        {"rsa1024.pem", rsa1024},
        {"b.sh", content},
        {"c.sh", content},
        {"crlf.sh", a5 + "\r\n"},
        {"old.sh", signedFile("echo old\n", "P50", devPrivateKey('5'))},
        {"other.sh", signedFile("echo other\n", "P50", devPrivateKey('6'))},
        {"tampered.sh", tampered},
    };
    const Contents after = {
        {"a.sh", a5},
        {"b.sh", a5},
        {"c.sh", signedFile(content, "P50", key("private_key_5.pem"))},
        {"signed.sh", signedFile(content, "L60", devPrivateKey('6'))},
        {"other.sh", signedFile("echo other\n", "P50", devPrivateKey('5'))},
        {"tampered.sh", signedFile("echo Xampered\n", "P50", devPrivateKey('5'))},
    };
    struct Case {
        const char* name;
        std::string args;
        int status;
        const char* changed;
        const char* says;
        const char* unsaid = nullptr;
    };
    const std::string resume = c_sign5 + "a.sh old.sh other.sh ./a.sh tampered.sh a.sh";
    const std::vector<Case> cases = {
        {"key 6 named as selector 5", "sign --key " + shq(devPrivateKey('6')) + " --key-id 5 a.sh", 2, "",
         "is the private half of the built-in key 6, not of key 5: its signatures would never verify; use --key-id 6"},
        {"deployment key 5 as 6 against its keys",
         "sign --keys " + shq(s_keys.path()) + " --key " + shq(key("private_key_5.pem")) + " --key-id 6 a.sh", 2, "",
         "is the private half of the given key 5, not of key 6"},
        {"unknown key warned about", "sign --key " + shq(key("private_key_5.pem")) + " --key-id 5 c.sh", 0, "c.sh",
         "kzol: warning: "},
        {"fingerprint of the key used", c_sign5 + "a.sh", 0, "a.sh", fingerprint5.c_str()},
        {"RSA-1024 key", "sign --key rsa1024.pem --key-id 5 a.sh", 2, "", "RSA key of 1024 bits"},
        {"type L refused", c_sign5 + "--type L a.sh", 2, "", "kzol: type L blocks select no key in the library"},
        {"type L over a block with --force",
         "sign --key " + shq(devPrivateKey('6')) + " --key-id 6 --force --type L crlf.sh -o signed.sh", 0, "signed.sh",
         ""},
        {"already signed", c_sign5 + "crlf.sh", 1, "", "already carries a"},
        {"empty file", c_sign5 + "empty.pem", 2, "", "kzol: empty.pem is empty: a signed file needs"},
        {"-o with two files", c_sign5 + "-o out a.sh b.sh", 2, "", "kzol: -o takes one FILE"},
        {"-o names a file", c_sign5 + "a.sh -o b.sh", 1, "", "b.sh exists; use --force"},
        // Found missing, then refused by the final link: the temporary file goes.
        {"-o names a dangling link", c_sign5 + "a.sh -o dangling", 2, "", "dangling already exists"},
        {"one missing among several", c_sign5 + "-j 2 a.sh missing b.sh", 1, "a.sh b.sh",
         "2 signed, 0 skipped, 1 failed"},
        {"list on standard input", c_sign5 + "--from - < list", 0, "a.sh b.sh", "2 signed, 0 skipped, 0 failed"},
        {"empty key file", "sign --key empty.pem --key-id 5 a.sh", 2, "",
         "kzol: empty.pem is empty: --key needs a PEM private key\n"},
        {"public key as --key", "sign --key " + shq(devPublicKey('5')) + " --key-id 5 a.sh", 2, "",
         "holds a public key, not an unencrypted PEM private key: --key needs the private key\n"},
        {"encrypted key off a terminal", "sign --key enc.pem --key-id 5 a.sh < /dev/null", 2, "",
         "kzol: enc.pem is encrypted: give its passphrase with --pass-file"},
        {"encrypted key, wrong passphrase", "sign --key enc.pem --pass-file list --key-id 5 a.sh", 2, "",
         "kzol: enc.pem: wrong passphrase, or not a PEM private key\n"},
        {"encrypted key with --pass-file", "sign --key enc.pem --pass-file pass --key-id 5 a.sh", 0, "a.sh",
         fingerprint5.c_str()},
        {"resume", resume, 1, "a.sh", "1 signed, 1 skipped, 2 failed\n", "old.sh"},
        {"resume with --force", resume + " --force", 0, "a.sh other.sh tampered.sh", "4 signed, 0 skipped, 0 failed\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir work;
        for (const auto& [name, bytes] : files) {
            writeFile(work.file(name), bytes);
            ASSERT_EQ(::chmod(work.file(name).c_str(), 0750), 0);
        }
        ASSERT_EQ(::symlink("nowhere", work.file("dangling").c_str()), 0);
        Contents expected = snapshot(work.path());
        std::istringstream changed(c.changed);
        for (std::string name; changed >> name;) {
            expected[name] = after.at(name);
        }
        std::string text;
        EXPECT_EQ(kzolIn(work.path(), c.args, &text), c.status);
        EXPECT_NE(text.find(c.says), std::string::npos) << text;
        if (c.unsaid != nullptr) {
            EXPECT_EQ(text.find(c.unsaid), std::string::npos) << text;
        }
        EXPECT_EQ(snapshot(work.path()), expected);
        for (const auto& entry : fs::directory_iterator(work.path())) {
            EXPECT_TRUE(!entry.is_regular_file() || entry.status().permissions() == fs::perms(0750)) << entry.path();
        }
    }
}

// SIGINT or SIGTERM in the middle of a batch of thousands: the summary says
// "interrupted", the status is 128 + the signal, every file is either as it
// was or signed, and no temporary file stays. Temporary files that a killed
// run left are named by the next run, and removed when asked.
TEST_F(KzolRelease, InterruptedBatchLeavesNoTemporaryFile)
{
    const int count = 2000;
    for (const auto& [signal, status] : std::vector<std::pair<std::string, int>>{{"INT", 130}, {"TERM", 143}}) {
        SCOPED_TRACE(signal);
        const TempDir work;
        std::string list;
        for (int i = 0; i < count; ++i) {
            const std::string name = "d" + std::to_string(i % 3) + "/f" + std::to_string(i) + ".sh";
            writeFile(work.file(name), "echo " + std::to_string(i) + "\n");
            list += name + "\n";
        }
        writeFile(work.file("list"), list);
        writeFile(work.file("d1/.f1.sh.kzol-AbC123"), "left by a killed run");
        const std::string sign = shq(KZOL_TOOL) + " " + c_sign5 + "-j 2 --from list";
        // The signal comes with the hundredth line; kzol cannot run far
        // ahead, as its output goes through a pipe read line by line.
        EXPECT_EQ(run("cd " + shq(work.path()) + " && { sh -c \"" + sign + " 2>err & echo \\$! >pid; wait \\$!; " +
                      "echo \\$? >status\" | { n=0; while IFS= read -r line; do echo \"$line\" >>out; n=$((n+1)); " +
                      "[ $n -ne 100 ] || kill -" + signal + " $(cat pid); done; }; }; exit $(cat status)"),
                  status);
        std::string out = readFile(work.file("out"));
        const std::size_t summary = out.find("interrupted: ");
        ASSERT_NE(summary, std::string::npos) << out;
        const std::string err = readFile(work.file("err"));
        EXPECT_NE(err.find("left by an earlier run: d1/.f1.sh.kzol-AbC123"), std::string::npos) << err;
        EXPECT_NE(err.find("--remove-leftovers"), std::string::npos) << err;
        const std::size_t signedCount = std::stoul(out.substr(summary + std::string("interrupted: ").size()));
        EXPECT_GT(signedCount, 0U) << out;
        EXPECT_LT(signedCount, static_cast<std::size_t>(count)) << out;
        std::string verified, leftovers;
        kzolIn(work.path(), "verify --from list", &verified);
        EXPECT_NE(verified.find(std::to_string(count) + " files: " + std::to_string(signedCount) +
                                " correct, 0 incorrect, " + std::to_string(count - signedCount) +
                                " not signed, 0 error"),
                  std::string::npos);
        run("cd " + shq(work.path()) + " && find . -name '.*.kzol-*' | sort", &leftovers);
        EXPECT_EQ(leftovers, "./d1/.f1.sh.kzol-AbC123\n");
        writeFile(work.file("one"), "d1/f1.sh\n");
        EXPECT_EQ(kzolIn(work.path(), c_sign5 + "--from one --remove-leftovers", &out), 0);
        EXPECT_NE(out.find("removed 1 temporary file(s) left by an earlier run"), std::string::npos) << out;
        EXPECT_FALSE(fs::exists(work.file("d1/.f1.sh.kzol-AbC123")));
    }
}

// A batch gives its files their names in rounds, one flush for each round:
// every good file is signed exactly as the openssl command signs it, in
// either directory, however few descriptors the process may open; the ones
// that fail are counted and leave the rest alone; no temporary file is left.
// Signing reads in 1 MiB pieces: files around the piece size come out as the
// openssl command signs them (PKCS#1 v1.5 signatures are deterministic), also
// when an old block of the other key is replaced.
TEST_F(KzolRelease, BatchCommitsEveryGoodFileInRounds)
{
    // Name, content, and the bytes written before signing.
    std::vector<std::array<std::string, 3>> files = {{"b/x.sh", "echo x\n", "echo x\n"}};
    for (int i = 0; i < 40; ++i) {
        const std::string content = "#!/bin/sh\necho " + std::to_string(i) + "\n";
        files.push_back({"a/" + std::to_string(i) + ".sh", content, content});
    }
    const std::size_t mib = 1 << 20;
    // From 4 MiB on, one thread reads and hashes while another writes.
    for (const std::size_t size : {mib - 1, mib, mib + 1, 2 * mib + 4097, 4 * mib + 1}) {
        std::string content(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            content[i] = static_cast<char>((i * 2654435761U) >> 11);
        }
        files.push_back({"b/" + std::to_string(size), content, content});
        files.push_back(
            {"b/" + std::to_string(size) + ".old", content, signedFile(content, "P60", devPrivateKey('6')) + "\n"});
    }
    // Descriptors as usual, and few.
    for (const std::string limit : {"true", "ulimit -Sn 20"}) {
        SCOPED_TRACE(limit);
        const TempDir work;
        std::string list = "nothere\na\n";
        for (const auto& [name, content, bytes] : files) {
            writeFile(work.file(name), bytes);
            list += name + "\n";
        }
        writeFile(work.file("list"), list);

        std::string out;
        EXPECT_EQ(kzolIn(work.path(), c_sign5 + "-j 2 --force --from list", &out, limit + " && "), 1);
        EXPECT_NE(out.find("51 signed, 0 skipped, 2 failed\n"), std::string::npos) << out;
        for (const auto& [name, content, bytes] : files) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(readFile(work.file(name)) == signedFile(content, "P50", devPrivateKey('5')));
        }
        run("cd " + shq(work.path()) + " && find . -name '.*.kzol-*'", &out);
        EXPECT_EQ(out, "");
    }
}

// A key in a SoftHSM2 token made here: signatures equal the PEM key's, and the
// token's failures are named. The PIN (right or wrong) never appears in any
// output, and once kzol is done no copy of it is left in its memory: a
// preloaded search (support/pin_scan.c) looks through every writable mapping
// as the process ends, after the token's module is unloaded (what libp11 and
// the module left on the heap is searched too; they leave no copy, so no
// region is set aside). The one copy it finds is the command line's, which
// is the caller's: that it is found shows the search would see any other.
TEST_F(KzolRelease, KeyInAPkcs11Token)
{
    const char* module = "/usr/lib/softhsm/libsofthsm2.so";
    ASSERT_TRUE(fs::exists(module)) << "softhsm2 is installed by scripts/bootstrap";
    const TempDir hsm, work;
    writeFile(hsm.file("softhsm2.conf"),
              "directories.tokendir = " + hsm.file("tokens") + "\nobjectstore.backend = file\n");
    fs::create_directories(hsm.file("tokens"));
    const std::string pin = "73915286404";
    const std::string env = "SOFTHSM2_CONF=" + shq(hsm.file("softhsm2.conf")) + " ";
    ASSERT_EQ(run(env + "softhsm2-util --init-token --free --label release --so-pin 9999 --pin " + pin +
                  " >/dev/null && openssl pkcs8 -topk8 -nocrypt -in " + shq(devPrivateKey('5')) + " -out " +
                  shq(hsm.file("k5.p8")) + " && " + env + "softhsm2-util --import " + shq(hsm.file("k5.p8")) +
                  " --token release --label key5 --id 05 --pin " + pin + " >/dev/null"),
              0);
    writeFile(hsm.file("pin"), pin + "\n");
    // Sanitizer runtimes must come first in a process, a user-mode emulator
    // would take the preload for itself, and under valgrind (which preloads
    // its own vgpreload objects) reading every byte of memory, allocated or
    // not, is an error of its own: no search there.
    const char* preloaded = std::getenv("LD_PRELOAD");
    const bool underValgrind = preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr;
    const bool search = !std::string(KZOL_PIN_SCAN).empty() && !KZOL_CROSS_EMULATED && !underValgrind;
    const std::string scan = !search ? ""
                                     : "LD_PRELOAD=" + shq(KZOL_PIN_SCAN) +
                                           " KZOL_PIN_SCAN_OUT=" + shq(work.file("found")) +
                                           " KZOL_PIN_SCAN_SECRET=" + shq(hsm.file("pin")) + " ";
    const std::string content = "#!/bin/sh\necho from the token\n";
    const std::string uri = "pkcs11:token=release;object=key5?module-path=" + std::string(module);
    // extra: options after the key; env: before the command
    struct Case {
        const char* name;
        std::string key;
        std::string extra;
        int status;
        std::string says;
        std::string env = "";
    };
    const std::vector<Case> cases = {
        {"PIN in the URI", uri + "&pin-value=" + pin, "", 0, "signed a.sh"},
        {"PIN hidden where the URI is shown", uri + "&pin-value=" + pin, "--keys " + shq(s_keys.path()), 0,
         "kzol: warning: pkcs11:token=release;object=key5?module-path=" + std::string(module) +
             "&pin-value=(hidden) matches neither given public key"},
        {"PIN file, key by id", "pkcs11:token=release;id=%05",
         "--module " + std::string(module) + " --pin-file " + shq(hsm.file("pin")), 0, "signed a.sh"},
        {"PIN from the environment", uri, "", 0, "signed a.sh", "KZOL_PKCS11_PIN=" + pin + " "},
        {"no PIN anywhere", uri, "", 2, "the token needs a PIN"},
        {"wrong PIN", uri + "&pin-value=4321", "", 2, "PIN refused by the token"},
        {"no such key", "pkcs11:token=release;object=key6?pin-value=" + pin + "&module-path=" + module, "", 2,
         "no private key in the token matches"},
        {"no such token", "pkcs11:token=other?module-path=" + std::string(module), "", 2,
         "no token labelled \"other\""},
        {"no module", "pkcs11:token=release", "", 2, "needs its module"},
        {"mistyped attribute", "pkcs11:tokn=release?module-path=" + std::string(module), "", 2,
         "unknown path attribute \"tokn\""},
        {"bad escape in the PIN", uri + "&pin-value=" + pin + "%4", "", 2,
         "bad percent-escape in the value of \"pin-value\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeFile(work.file("a.sh"), content);
        writeFile(work.file("found"), "");
        std::string text;
        EXPECT_EQ(kzolIn(work.path(), "sign --key " + shq(c.key) + " --key-id 5 " + c.extra + " a.sh", &text,
                         env + c.env + scan),
                  c.status);
        EXPECT_NE(text.find(c.says), std::string::npos) << text;
        EXPECT_EQ(text.find(pin), std::string::npos) << text;
        EXPECT_EQ(text.find("4321"), std::string::npos) << text;
        if (search) {
            EXPECT_EQ(readFile(work.file("found")), c.key.find(pin) != std::string::npos ? "argv\n" : "");
        }
        // Byte for byte what the openssl command signs with the PEM key.
        EXPECT_EQ(readFile(work.file("a.sh")) == signedFile(content, "P50", devPrivateKey('5')), c.status == 0);
    }
    // A disable certificate from the token.
    std::string text;
    EXPECT_EQ(kzolIn(work.path(),
                     "cert --key " + shq(uri + "&pin-value=" + pin) + " --key-id 5 --duid TV-7 -o RTZOLOFF.cer", &text,
                     env),
              0)
        << text;
}

// A tree of a few hundred files: the audit's class of each file is what
// `kzol verify` answers for it, its summary counts them, and links and
// special files are not opened.
TEST_F(KzolRelease, AuditAgreesWithVerifyFileByFile)
{
    const TempDir tree("/tmp");  // a user-writable area
    // Every fourth file from the second on signed with key 5, from the third
    // on with key 6; every fortieth from the third on tampered after signing.
    for (int i = 0; i < 240; ++i) {
        const std::string name = "d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".k" + std::to_string(i % 4);
        writeFile(tree.file(name), "#!/bin/sh\necho " + std::to_string(i) + "\n");
    }
    for (const char key : {'5', '6'}) {
        const std::string id(1, key), group = std::to_string(key - '4');
        ASSERT_EQ(run("cd " + shq(tree.path()) + " && find . -name '*.k" + group + "' | " + shq(KZOL_TOOL) +
                      " sign -j 2 --key " + shq(devPrivateKey(key)) + " --key-id " + id + " --from - >/dev/null 2>&1"),
                  0);
    }
    for (int i = 2; i < 240; i += 40) {
        const std::string name = tree.file("d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".k2");
        std::string bytes = readFile(name);
        bytes[0] = 'X';
        writeFile(name, bytes);
    }
    writeFile(tree.file("typeL.sh"), signedFile("echo L\n", "L50", devPrivateKey('5')));
    ASSERT_EQ(::mkfifo(tree.file("fifo").c_str(), 0600), 0);
    fs::create_symlink("/etc/hostname", tree.file("link-out"));

    // The class of every file, from the audit and from verify.
    std::string auditJson, verifyJson, table;
    ASSERT_EQ(run(shq(KZOL_TOOL) + " audit -j 2 --json " + shq(tree.path()), &auditJson), 1);
    run("cd / && find " + shq(tree.path()) + " -type f -print0 | xargs -0 " + shq(KZOL_TOOL) + " verify --json",
        &verifyJson);
    Lines audited = jsonLines(auditJson, classOf);  // but for the fifo, which verify does not open
    audited.erase(std::remove(audited.begin(), audited.end(), tree.file("fifo") + " special"), audited.end());
    EXPECT_EQ(audited, jsonLines(verifyJson, classOf));
    EXPECT_EQ(auditJson.find("link-out"), std::string::npos);

    EXPECT_EQ(kzol("audit " + shq(tree.path()), &table), 1);
    // The summary after the refused files.
    EXPECT_EQ(table.substr(std::min(table.find("outside the areas"), table.size())),
              "outside the areas (runs unchecked)          0\n"
              "signed correctly, key 5                    60\n"
              "signed correctly, key 6                    54\n"
              "not signed                                120\n"
              "signed incorrectly                          6\n"
              "signature check error                       1\n"
              "unreadable                                  0\n"
              "special file (not opened)                   1\n"
              "files                                     242\n"
              "would be refused                          128\n");
}

namespace {

// What the old tool did: the path looked up at each step, the temporary
// beside the name, the rename by name.
void signByName(const std::string& path)
{
    const std::string content = readFile(path);
    const std::string temporary = path.substr(0, path.rfind('/')) + "/.naive-tmp";
    std::ofstream(temporary, std::ios::binary) << content << "signed";
    ::rename(temporary.c_str(), path.c_str());
}

std::string attribute(const std::string& path, const char* name)
{
    char value[64];
    const ssize_t n = ::lgetxattr(path.c_str(), name, value, sizeof(value));
    return n < 0 ? "none" : std::string(value, static_cast<std::size_t>(n));
}

}  // namespace

// Root signs a tree that nobody wrote: owners, modes (set-user-ID included)
// and extended attributes stay, links to root-only files are refused, and a
// directory swapped for a link while signing runs never lets a write out of
// the tree, where the old way by name loses.
TEST_F(KzolRelease, RootSignsATreeAnUnprivilegedUserWrote)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const TempDir secrets, stage;
    ::chmod(secrets.path().c_str(), 0700);
    ::chmod(stage.path().c_str(), 0755);
    ASSERT_EQ(::chown(stage.path().c_str(), 65534, 65534), 0);
    writeFile(secrets.file("authorized_keys"), "root's own keys\n");
    writeFile(secrets.file("shadow"), "root's own secret\n");
    ::chmod(secrets.file("authorized_keys").c_str(), 0600);
    ::chmod(secrets.file("shadow").c_str(), 0600);
    const std::string tree = stage.file("tree");
    ASSERT_EQ(AsNobody([&] {
                  ::umask(022);
                  ::mkdir(tree.c_str(), 0755);
                  ::mkdir((tree + "/d").c_str(), 0755);
                  writeFile(tree + "/d/authorized_keys", "nobody's keys\n");
                  writeFile(tree + "/id", "#!/bin/sh\nid\n");
                  writeFile(tree + "/hard", "echo hard\n");
                  writeFile(tree + "/plain.sh", "echo plain\n");
                  return ::chmod((tree + "/id").c_str(), 04755) == 0 &&
                                 ::setxattr((tree + "/id").c_str(), "user.kzol", "label", 5, 0) == 0 &&
                                 ::link((tree + "/hard").c_str(), (tree + "/hard2").c_str()) == 0 &&
                                 ::symlink(secrets.file("shadow").c_str(), (tree + "/link").c_str()) == 0 &&
                                 ::symlink(secrets.file("shadow").c_str(), (tree + "/out-link").c_str()) == 0 &&
                                 ::symlink("plain.sh", (tree + "/plain-link").c_str()) == 0
                             ? 0
                             : 1;
              }).wait(),
              0);
    ASSERT_EQ(::setxattr((tree + "/id").c_str(), "security.kzol", "label", 5, 0), 0);
    expectRuns(
        {
            {"set-user-ID file keeps its owner", c_sign5 + "id", 0, "signed id"},
            {"link at FILE to a root-only file", c_sign5 + "link", 2, "link is a symbolic link; not followed"},
            {"link at -o to a root-only file", c_sign5 + "--force -o out-link id", 2,
             "out-link already exists as a symbolic link; not followed"},
            {"hard-linked file", c_sign5 + "hard", 2, "hard has 2 hard links; not replaced"},
            {"link followed when asked", c_sign5 + "--follow-links plain-link", 0, "signed plain-link"},
        },
        tree, true);
    struct stat st {};
    ASSERT_EQ(::stat((tree + "/id").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534U);
    EXPECT_EQ(st.st_gid, 65534U);
    EXPECT_EQ(st.st_mode & 07777, 04755U);
    EXPECT_EQ(attribute(tree + "/id", "user.kzol"), "label");
    EXPECT_EQ(attribute(tree + "/id", "security.kzol"), "label");
    EXPECT_TRUE(readFile(tree + "/id") == signedFile("#!/bin/sh\nid\n", "P50", devPrivateKey('5')));
    EXPECT_EQ(readFile(tree + "/hard"), "echo hard\n");
    EXPECT_TRUE(fs::is_symlink(tree + "/plain-link"));
    EXPECT_EQ(readFile(tree + "/plain.sh"), signedFile("echo plain\n", "P50", devPrivateKey('5')));

    // The racing writer: first the old way by name loses, then kzol never does.
    // It swaps the directory d for a symbolic link to the secrets and back.
    int naiveLosses = 0, attempts = 0, signedRuns = 0;
    {
        const AsNobody swapper([&]() -> int {
            const std::string dir = tree + "/d", aside = dir + ".real";
            for (;;) {
                ::rename(dir.c_str(), aside.c_str());
                ::symlink(secrets.path().c_str(), dir.c_str());
                ::unlink(dir.c_str());
                ::rename(aside.c_str(), dir.c_str());
            }
        });
        for (; attempts < 200000 && naiveLosses == 0; ++attempts) {
            signByName(tree + "/d/authorized_keys");
            naiveLosses += readFile(secrets.file("authorized_keys")) != "root's own keys\n";
        }
        writeFile(secrets.file("authorized_keys"), "root's own keys\n");
        for (int i = 0; i < 100; ++i) {
            signedRuns += kzol(c_sign5 + "--force " + shq(tree + "/d/authorized_keys"), nullptr, "/") == 0;
        }
    }
    std::cout << "old way lost after " << attempts << " attempt(s); kzol signed " << signedRuns
              << " of 100 runs, the rest refused\n";
    EXPECT_GT(naiveLosses, 0);
    EXPECT_EQ(readFile(secrets.file("authorized_keys")), "root's own keys\n");
    EXPECT_EQ(readFile(secrets.file("shadow")), "root's own secret\n");
    for (const auto& entry : fs::directory_iterator(secrets.path())) {
        EXPECT_EQ(entry.path().filename().string().find(".kzol-"), std::string::npos) << entry.path();
    }
}

// kzol pubkey writes the one form the build takes from any PEM key, and the
// build takes both keys or none: a deployment key beside a development one
// fails, a development key is known by its content wherever it lies, and
// the library built with the keys pubkey wrote verifies what their private
// keys signed, and nothing the development keys did.
TEST_F(KzolRelease, PubkeyFeedsTheBuildWhichTakesBothKeysOrNone)
{
    const TempDir work;
    const std::string mine5 = readFile(key("public_key_5.pem"));
    ASSERT_EQ(run("openssl pkey -in " + shq(key("private_key_5.pem")) + " -pubout -out " + shq(work.file("spki.pem")) +
                  " && openssl rsa -in " + shq(key("private_key_5.pem")) + " -RSAPublicKey_out -out " +
                  shq(work.file("pkcs1.pem")) + " 2>/dev/null && cp " + shq(devPublicKey('6')) + " " +
                  shq(work.file("copy6.pem"))),
              0);
    expectRuns(
        {
            {"private key", "pubkey " + shq(key("private_key_5.pem")), 0, mine5},
            {"openssl pkey -pubout (451 characters)", "pubkey spki.pem", 0, mine5},
            {"PKCS#1 public key", "pubkey pkcs1.pem", 0, mine5},
            {"written to a file", "pubkey -o out.pem spki.pem", 0, ""},
            {"file exists", "pubkey -o out.pem spki.pem", 1, ""},
            {"empty key", "pubkey /dev/null", 2, ""},
            {"the other key", "pubkey -o mine6.pem " + shq(key("private_key_6.pem")), 0, ""},
        },
        work.path());
    EXPECT_EQ(readFile(work.file("out.pem")), mine5);
    expectRuns({{"a development key", "pubkey copy6.pem", 0, "this is the DEVELOPMENT key 6"}}, work.path(), true);
    std::string warned;
    // Unreadable to the user who runs kzol: one line that says so. (Under a
    // user-mode emulator the other user could not load kzol's libraries.)
    if (::geteuid() == 0 && !KZOL_CROSS_EMULATED) {
        kzolIn(work.path(), "verify --keys " + shq(s_keys.path()) + " spki.pem", &warned,
               "setpriv --reuid=65534 --regid=65534 --clear-groups ");
        EXPECT_NE(warned.find("kzol: unreadable key directory " + s_keys.path()), std::string::npos) << warned;
        EXPECT_NE(warned.find(": Permission denied\n"), std::string::npos) << warned;
    }

    const std::string dev5 = " -DKZOL_PUBLIC_KEY_5=" + shq(devPublicKey('5'));
    const std::vector<ToolCase> cases = {
        {"only key 5 given", " -DKZOL_PUBLIC_KEY_5=" + shq(work.file("out.pem")), 1,
         "KZOL_PUBLIC_KEY_6 (" KZOL_SOURCE_DIR "/keys/dev/public_key_6.pem) is a development key"},
        {"a copy of a development key elsewhere", dev5 + " -DKZOL_PUBLIC_KEY_6=" + shq(work.file("copy6.pem")), 0,
         "THIS BUILD USES THE DEVELOPMENT KEYS"},
        {"openssl's own form", dev5 + " -DKZOL_PUBLIC_KEY_6=" + shq(work.file("spki.pem")), 1,
         "'kzol pubkey KEY' converts any PEM key"},
        {"both from kzol pubkey",
         " -DKZOL_PUBLIC_KEY_5=" + shq(work.file("out.pem")) + " -DKZOL_PUBLIC_KEY_6=" + shq(work.file("mine6.pem")), 0,
         "Generating done"},
    };
    const TempDir builds;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text;
        const std::string dir = builds.file(std::to_string(&c - cases.data()));
        EXPECT_EQ(run("cmake -S " + shq(KZOL_SOURCE_DIR) + " -B " + shq(dir) + c.args + " 2>&1", &text), c.status);
        // CMake wraps its messages: the lines joined again.
        for (std::size_t at = text.find("\n  "); at != std::string::npos; at = text.find("\n  ", at)) {
            text.replace(at, 3, " ");
        }
        EXPECT_NE(text.find(c.out), std::string::npos) << text;
        // Loud about development keys where one is built in, and only there.
        EXPECT_EQ(text.find("DEVELOPMENT") != std::string::npos, c.out.find("DEVELOPMENT") != std::string::npos);
    }
    const std::string mine = builds.file("3");
    EXPECT_NE(readFile(mine + "/generated/public_keys.h").find(mine5.substr(27, 392)), std::string::npos);
    std::string text;

    // That library, on an emulated television, answers kzol check (as
    // verifyFileWihtoutKey) for a file in an area; the tree's own library
    // answers the other way round. The refusal's report reaches no other
    // suite's daemon: from here on the test has a network namespace, so
    // abstract sockets, of its own.
    if (KZOL_CROSS_EMULATED || ::unshare(CLONE_NEWNET) != 0) {
        GTEST_SKIP() << "the library's answers need a network namespace of their own and the host's compiler";
    }
    ASSERT_EQ(run("nice cmake --build " + shq(mine) + " --target kZOLUser --parallel 2 2>&1", &text), 0) << text;
    ASSERT_EQ(kzol("profile init tv --tv", nullptr, work.path()), 0);
    const TempDir area("/tmp");
    writeFile(area.file("mine.sh"), "echo mine\n");
    ASSERT_EQ(kzol("sign --key " + shq(key("private_key_6.pem")) + " --key-id 6 mine.sh", nullptr, area.path()), 0);
    writeFile(area.file("dev.sh"), signedFile("echo dev\n", "P50", devPrivateKey('5')));
    // In a sanitizer build the preloaded emulation comes before the runtime.
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    const std::string check =
        "emulate tv -- env LD_LIBRARY_PATH=" + shq(mine + "/libbs") + " " + shq(KZOL_TOOL) + " check ";
    expectRuns(
        {
            {"what the deployment key signed", check + shq(area.file("mine.sh")), 0,
             "allowed (BS_SIGNATURE_CORRECT)\n"},
            {"what the development key signed", check + shq(area.file("dev.sh")), 1,
             "refused (BS_SIGNATURE_INCORRECT)\n"},
            {"the tree's own library", "emulate tv -- " + shq(KZOL_TOOL) + " check " + shq(area.file("mine.sh")), 1,
             "refused (BS_SIGNATURE_INCORRECT)\n"},
        },
        work.path());
}
