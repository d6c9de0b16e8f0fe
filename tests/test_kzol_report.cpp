// The kzol verify, check, listen and report commands, run as programs. The
// test program has a network namespace of its own (inherited by the commands
// it starts), so its listeners hold the daemon's name without meeting a real one.
#include <sys/socket.h>

#include <future>

#include "daemon.h"

using namespace kzol_test;

// `kzol listen ARGS` in the background, its standard error in a file;
// `timeout` ends it with one SIGTERM after `seconds` (and kills it 10 seconds
// later) and answers its own status. (Without --foreground, timeout would
// signal its whole process group again, and SIGCONT after it: signals that
// can reach the listener while it exits, and the ASan build's leak check
// that runs then.) `listening` tells whether it held the
// name within 10 seconds of the start.
struct Listener {
    explicit Listener(const std::string& args, int seconds = 60)
    {
        status = std::async(std::launch::async, [this, args, seconds] {
            return run("timeout --foreground --preserve-status -k 10 " + std::to_string(seconds) + " " +
                           shq(KZOL_TOOL) + " listen " + args + " </dev/null 2>" + shq(errors),
                       &printed);
        });
        listening = run("for i in $(seq 1000); do grep -qs 'listening on SfDaemon/UserMsg' " + shq(errors) +
                        " && exit 0; sleep 0.01; done; exit 1") == 0;
    }
    int finish() { return status.valid() ? status.get() : -1; }
    std::string err() const { return readFile(errors); }
    // The reports printed (once it finished), their sequence numbers written as SEQ.
    std::string out()
    {
        const std::string key = "\"Report/ReportSeq\":\"";
        for (auto at = printed.find(key); at != std::string::npos; at = printed.find(key, at + 1)) {
            printed.replace(at + key.size(), printed.find('"', at + key.size()) - at - key.size(), "SEQ");
        }
        return printed;
    }
    const TempDir dir;
    const std::string errors = dir.file("errors");
    std::string printed;
    std::future<int> status;
    bool listening = false;
};

// The line the listener prints for a caller's report; texts JSON-escaped.
static std::string reportLine(int kind, const std::string& caller, const std::string& description = "",
                              const std::string& fileType = "", const std::string& path = "")
{
    return "{\"Action/FileSend\":" + std::to_string(kind) + ",\"Report/Caller\":\"" + caller +
           "\",\"Report/Decription\":\"" + description + "\",\"Report/FileType\":\"" + fileType +
           "\",\"Report/Path\":\"" + path +
           "\",\"Report/ReportSeq\":\"SEQ\",\"State\":\"ShowNoti\","
           "\"TaskName\":\"UserBlockMsg\"}\n";
}

TEST(KzolReport, ReportsReachTheListener)
{
    const std::string said = "say \\\"hi\\\" \\\\";  // JSON-escaped
    const std::vector<std::pair<std::string, std::string>> argsAndLines = {
        {"--caller c4 --type 4", ""},  // no kind bit: nothing sent
        {"--caller c3 --file-type SCRIPT --path /no/x --description 'say \"hi\" \\' --type 3",
         reportLine(1, "c3", said, "SCRIPT", "/no/x") + reportLine(2, "c3", said, "SCRIPT", "/no/x")},
        {"--type 1", reportLine(1, "")},  // options left out are null pointers: empty texts
    };
    Listener listener("--json-lines --count 3");
    ASSERT_TRUE(listener.listening) << listener.err();
    std::string expected;
    for (const auto& [args, lines] : argsAndLines) {
        EXPECT_EQ(kzol("report " + args), 0) << args;
        expected += lines;
    }
    EXPECT_EQ(listener.finish(), 0) << listener.err();
    EXPECT_EQ(listener.out(), expected);
    // Nobody listens any more: an undelivered report makes it fail, unless none was due.
    std::string message;
    EXPECT_EQ(kzol("report --caller x --type 1", &message, ".", true), 1);
    EXPECT_EQ(message, "kzol: a report was not delivered to SfDaemon/UserMsg (is a daemon listening?)\n");
    EXPECT_EQ(kzol("report --caller x --type 4", &message, ".", true), 0);
    EXPECT_EQ(message, "");
}

// Each peer is followed by a good report, which the listener still prints.
TEST(KzolListen, HostilePeersDoNotStopIt)
{
    struct Case {
        std::string bytes;
        bool keepOpen;
        std::string printed;
        const char* says;
    };  // printed: of the peer
    const char* const incomplete = "connection ended without a complete frame";
    const std::vector<Case> cases = {
        {prefix(0xFFFFFFFFu) + "{}", false, "", incomplete},
        {"GET / HTTP/1.0\r\n\r\n", false, "", incomplete},
        {frame(std::string(100000, '[')) + frame("{\"n\": 1}"), false, "{\"n\":1}\n",
         "frame of 100000 bytes is not JSON: [[["},
        {"", true, "", "peer sent nothing within 300 ms; dropped"},
        {prefix(50) + "{\"a\"", true, "", "peer did not complete a frame within 300 ms"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        // Only the peers that stay open meet the short deadline; a closing one
        // must be told apart however slow the build (a sanitizer's allocator
        // takes its time over the 542 MB that "GET " asks for).
        Listener listener("--json-lines --receive-timeout " + std::string(c.keepOpen ? "300" : "20000") + " --count " +
                          (c.printed.empty() ? "1" : "2"));
        ASSERT_TRUE(listener.listening) << listener.err();
        const UniqueFd peer = abstractSocket("SfDaemon/UserMsg", false);
        ASSERT_EQ(send(peer.get(), c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(c.bytes.size()));
        ASSERT_TRUE(c.keepOpen || shutdown(peer.get(), SHUT_WR) == 0);
        EXPECT_EQ(kzol("report --caller good --type 1"), 0);
        EXPECT_EQ(listener.finish(), 0) << listener.err();
        EXPECT_EQ(listener.out(), c.printed + reportLine(1, "good"));
        EXPECT_NE(listener.err().find(std::string("kzol listen: ") + c.says), std::string::npos) << listener.err();
    }
}

TEST(KzolListen, SigtermEndsItInsideAFrame)
{
    Listener listener("--receive-timeout 60000", 6);
    ASSERT_TRUE(listener.listening) << listener.err();
    const UniqueFd peer = abstractSocket("SfDaemon/UserMsg", false);
    const std::string partial = prefix(50) + "{";  // keeps the listener waiting inside a frame
    ASSERT_EQ(send(peer.get(), partial.data(), partial.size(), MSG_NOSIGNAL), 5);
    EXPECT_EQ(listener.finish(), 0) << listener.err();
}

TEST(KzolVerify, PrintsTheLibrarysResult)
{
    const TempDir dir;
    const std::string content = "#!/bin/sh\necho \"signed\"\n";
    // Signed by the openssl command alone, the block written by the test's own encoders.
    struct Case {
        const char* name;
        std::string bytes;
        int status;
        const char* out;
    };
    const std::vector<Case> cases = {
        {"key5", signedFile(content, "P50", devPrivateKey('5')), 0, "BS_SIGNATURE_CORRECT\n"},
        {"wrongkey", signedFile(content, "P60", devPrivateKey('5')), 1, "BS_SIGNATURE_INCORRECT\n"},
        {"typeL", signedFile(content, "L50", devPrivateKey('5')), 1, "BS_ERROR\n"},
        {"plain", content, 1, "BS_NOT_SIGNED\n"},
    };
    for (const auto& c : cases) {
        writeFile(dir.file(c.name), c.bytes);
        std::string out;
        EXPECT_EQ(kzol("verify --caller tester " + shq(dir.file(c.name)), &out), c.status) << c.name;
        EXPECT_EQ(out, c.out) << c.name;
    }
    EXPECT_EQ(kzol("verify " + shq(dir.file("missing"))), 2);
}

// The whole job through the shipped tools on an emulated television: a signed
// script is allowed, an unsigned one refused, and a disable certificate for
// this device lets the unsigned one run.
TEST(KzolCheck, SignCheckAndDisableCertificate)
{
    // An ASan-built tool takes the preloaded emulation after its runtime.
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    const TempDir work("/tmp");  // a user-writable area
    const std::string tv = work.file("tv"), signedScript = work.file("signed.sh"),
                      unsignedScript = work.file("unsigned.sh"), check = "emulate " + shq(tv) + " -- " + shq(KZOL_TOOL);
    std::string out;
    writeFile(signedScript, "#!/bin/sh\necho signed\n");
    writeFile(unsignedScript, "#!/bin/sh\necho unsigned\n");
    ASSERT_EQ(kzol("profile init " + shq(tv) + " --tv --duid TV-0042 --usb stick"), 0);
    ASSERT_EQ(kzol("sign --key " + shq(devPrivateKey('6')) + " --key-id 6 " + shq(signedScript)), 0);
    // The device a certificate on the stick is for (none at first), the script, the answer and what kzol prints.
    const std::vector<std::tuple<std::string, std::string, int, std::string>> steps = {
        {"", signedScript, 0, "allowed (BS_SIGNATURE_CORRECT)\n"},
        {"", unsignedScript, 1, "refused (BS_NOT_SIGNED)\n"},
        {"TV-0043", unsignedScript, 1, "refused (BS_NOT_SIGNED)\n"},
        {"TV-0042", unsignedScript, 0, "allowed (disable certificate)\n"}};
    for (const auto& [device, script, answer, printed] : steps) {
        ASSERT_EQ(device.empty() ? 0
                                 : kzol("cert --force --key " + shq(devPrivateKey('5')) + " --key-id 5 -o " +
                                        shq(tv + "/usb/stick/RTZOLOFF.cer") + " --duid " + device),
                  0);
        EXPECT_EQ(kzol(check + " check " + shq(script), &out), answer) << printed;
        EXPECT_EQ(out, printed);
    }
}
