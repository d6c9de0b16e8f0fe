// The kzol verify, listen and report commands, run as programs. The test
// program has a network namespace of its own (inherited by the commands it
// starts), so its listeners hold the daemon's name without meeting a real one.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <regex>

#include "test_support.h"

using namespace kzol_test;

static std::string q(const std::string& s)
{ return "'" + s + "'"; }

// `kzol ARGS`, bounded in time, standard error dropped.
static int kzol(const std::string& args, std::string* out = nullptr)
{ return run("timeout -s KILL 30 " + q(KZOL_TOOL) + " " + args + " </dev/null 2>/dev/null", out); }

// `kzol listen ARGS` in the background, killed after 60 seconds, its standard
// output and error in the files PATH.out and PATH.err. `listening` tells
// whether it held the name within 10 seconds of the start. A signal sent goes
// to the listener once (timeout in the foreground does not repeat it to the
// process group).
struct Listener {
    Listener(const std::string& path, const std::string& args) : path(path)
    {
        status = std::async(std::launch::async, [path, args] {
            return run("echo $$ >" + q(path + ".pid") + "; exec timeout --foreground -s KILL 60 " + q(KZOL_TOOL) +
                       " listen " + args + " </dev/null >" + q(path + ".out") + " 2>" + q(path + ".err"));
        });
        listening = run("for i in $(seq 1000); do grep -qs 'listening on SfDaemon/UserMsg' " + q(path + ".err") +
                        " && exit 0; sleep 0.01; done; exit 1") == 0;
    }
    ~Listener() { finish(SIGTERM); }
    // Sends `sig` (0: none) to a listener still running and answers its exit status once it ends.
    int finish(int sig = 0)
    {
        if (sig != 0 && status.valid() && status.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            ::kill(std::stoi(readFile(path + ".pid")), sig);
        }
        return status.valid() ? status.get() : -1;
    }
    std::string err() const { return readFile(path + ".err"); }
    // The reports printed, their sequence numbers (7 to 12 digits) written as SEQ.
    std::string out() const
    { return std::regex_replace(readFile(path + ".out"), std::regex("Seq\":\"[0-9]{7,12}\""), "Seq\":\"SEQ\""); }
    std::string path;
    std::future<int> status;
    bool listening = false;
};

// A raw peer: connects to the channel's full-length abstract address and sends `bytes`.
struct Peer {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool sent = false;
    explicit Peer(const std::string& bytes)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
        sent = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
               ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    ~Peer() { ::close(fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
};

// A frame of the channel: the length in host order (which may lie), the text and a NUL.
static std::string frame(std::uint32_t length, const std::string& text)
{ return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + text + '\0'; }

// The line the listener prints for a caller's report; texts JSON-escaped.
static std::string reportLine(int kind, const std::string& caller, const std::string& description = "",
                              const std::string& fileType = "", const std::string& path = "")
{
    return "{\"Action/FileSend\":" + std::to_string(kind) + ",\"Report/Caller\":\"" + caller +
           "\",\"Report/Decription\":\"" + description + "\",\"Report/FileType\":\"" + fileType +
           "\",\"Report/Path\":\"" + path + "\",\"Report/ReportSeq\":\"SEQ\",\"State\":\"ShowNoti\","
           "\"TaskName\":\"UserBlockMsg\"}\n";
}

TEST(KzolReport, ReportsReachTheListener)
{
    const TempDir dir;
    const std::vector<std::pair<std::string, std::string>> argsAndLines = {
        {"--caller c4 --type 4", ""},  // no kind bit: nothing sent
        {"--caller c0 --file-type SCRIPT --path /no/x --description hi --type 0",
         reportLine(0, "c0", "hi", "SCRIPT", "/no/x")},
        {"--caller c1 --file-type BIN --path /no/x --description d --type 1", reportLine(1, "c1", "d", "BIN", "/no/x")},
        {"--caller c2 --description 'say \"hi\" \\' --type 2", reportLine(2, "c2", "say \\\"hi\\\" \\\\")},
        {"--caller c3 --path /y --type 3", reportLine(1, "c3", "", "", "/y") + reportLine(2, "c3", "", "", "/y")},
    };
    Listener listener(dir.file("listen"), "--json-lines --count 5");
    ASSERT_TRUE(listener.listening) << listener.err();
    std::string expected;
    for (const auto& [args, lines] : argsAndLines) {
        EXPECT_EQ(kzol("report " + args), 0) << args;
        expected += lines;
    }
    EXPECT_EQ(listener.finish(), 0) << listener.err();
    EXPECT_EQ(listener.out(), expected);
    // Nobody listens any more: undelivered reports make it fail, unless none was due.
    for (const auto& [type, status] : std::vector<std::pair<int, int>>{{0, 1}, {1, 1}, {3, 1}, {4, 0}}) {
        EXPECT_EQ(kzol("report --caller x --type " + std::to_string(type)), status) << "type " << type;
    }
}

// Each peer is followed by a good report, which the listener still prints.
TEST(KzolListen, HostilePeersDoNotStopIt)
{
    struct Case { std::string bytes; bool keepOpen; std::string printed; const char* says; };  // printed: of the peer
    const char* const incomplete = "connection ended without a complete frame";
    const std::vector<Case> cases = {
        {frame(0xFFFFFFFFu, "{}"), false, "", incomplete},
        {"GET / HTTP/1.0\r\n\r\n", false, "", incomplete},
        {frame(100000, std::string(100000, '[')) + frame(8, "{\"n\": 1}"), false, "{\"n\":1}\n",
         "frame of 100000 bytes is not JSON: [[["},
        {"", true, "", "peer sent nothing within 300 ms; dropped"},
        {frame(50, "{\"a\""), true, "", "peer did not complete a frame within 300 ms"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.says);
        const TempDir dir;
        const std::string count = c.printed.empty() ? "1" : "2";
        // Only the peers that stay open meet the short deadline; a closing one
        // must be told apart however slow the build (a sanitizer's allocator
        // takes its time over the 542 MB that "GET " asks for).
        const std::string timeout = c.keepOpen ? "300" : "20000";
        Listener listener(dir.file("listen"), "--json-lines --receive-timeout " + timeout + " --count " + count);
        ASSERT_TRUE(listener.listening) << listener.err();
        const Peer peer(c.bytes);
        ASSERT_TRUE(peer.sent && (c.keepOpen || ::shutdown(peer.fd, SHUT_WR) == 0));
        EXPECT_EQ(kzol("report --caller good --type 1"), 0);
        EXPECT_EQ(listener.finish(), 0) << listener.err();
        EXPECT_EQ(listener.out(), c.printed + reportLine(1, "good"));
        EXPECT_NE(listener.err().find(std::string("kzol listen: ") + c.says), std::string::npos) << listener.err();
    }
}

TEST(KzolListen, SigtermEndsItInsideAFrame)
{
    const TempDir dir;
    Listener listener(dir.file("first"), "--receive-timeout 60000");
    ASSERT_TRUE(listener.listening) << listener.err();
    const Peer peer(frame(50, "{"));  // keeps the listener waiting inside a frame
    ASSERT_TRUE(peer.sent);
    ::usleep(300000);
    EXPECT_EQ(listener.finish(SIGTERM), 0) << listener.err();
}

TEST(KzolVerify, PrintsTheLibrarysResult)
{
    const TempDir dir;
    const std::string content = "#!/bin/sh\necho \"signed\"\n";
    // Signed by the openssl command alone, the block written by the test's own encoders; no file for "missing".
    struct Case { const char* name; std::string bytes; int status; const char* out; };
    const std::vector<Case> cases = {
        {"key5", signedFile(content, "P50", devPrivateKey('5')), 0, "BS_SIGNATURE_CORRECT\n"},
        {"wrongkey", signedFile(content, "P60", devPrivateKey('5')), 1, "BS_SIGNATURE_INCORRECT\n"},
        {"typeL", signedFile(content, "L50", devPrivateKey('5')), 1, "BS_ERROR\n"},
        {"plain", content, 1, "BS_NOT_SIGNED\n"},
        {"missing", "", 2, ""},
    };
    for (const auto& c : cases) {
        if (c.status != 2) {
            writeFile(dir.file(c.name), c.bytes);
        }
        std::string out;
        EXPECT_EQ(kzol("verify --caller tester " + q(dir.file(c.name)), &out), c.status) << c.name;
        EXPECT_EQ(out, c.out) << c.name;
    }
}
