// The kzol verify, listen and report commands, run as programs. The test
// program has a network namespace of its own (inherited by the commands it
// starts), so its listeners hold the daemon's name without meeting a real one.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "test_support.h"

using namespace kzol_test;

namespace {

std::string q(const std::string& s)
{
    return "'" + s + "'";
}

// `kzol ARGS`, bounded in time, standard error dropped.
int kzol(const std::string& args, std::string* out = nullptr)
{
    return run("timeout -s KILL 30 " + q(KZOL_TOOL) + " " + args + " </dev/null 2>/dev/null", out);
}

// `kzol listen ARGS` in the background for 15 seconds at most, its standard
// output and error in the files PATH.out and PATH.err.
class Listener {
public:
    // Starts it and waits up to 10 seconds for it to hold the name.
    Listener(const std::string& path, const std::string& args) : m_out(path + ".out"), m_err(path + ".err")
    {
        const std::string command = "exec timeout -s KILL 15 " + q(KZOL_TOOL) + " listen " + args +
                                    " </dev/null >" + q(m_out) + " 2>" + q(m_err);
        if ((m_pid = ::fork()) == 0) {
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        for (int ms = 0; ms < 10000 && !listening; ms += 10, ::usleep(10000)) {
            listening = err().find("listening on SfDaemon/UserMsg") != std::string::npos;
        }
    }
    ~Listener() { finish(SIGTERM); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Sends `sig` (0: none) and answers the exit status once the listener ends; -1 when it was killed.
    int finish(int sig = 0)
    {
        int status = 0;
        const bool ended = m_pid > 0 && ::kill(m_pid, sig) == 0 && ::waitpid(m_pid, &status, 0) == m_pid;
        m_pid = -1;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string err() const { return readFile(m_err); }
    // The reports printed, their sequence numbers (7 to 12 digits) written as SEQ.
    std::string out() const
    {
        static const std::regex seq("\"Report/ReportSeq\":\"[0-9]{7,12}\"");
        return std::regex_replace(readFile(m_out), seq, "\"Report/ReportSeq\":\"SEQ\"");
    }

    bool listening = false;

private:
    std::string m_out, m_err;
    pid_t m_pid = -1;
};

// A raw peer: connects to the channel's full-length abstract address and sends `bytes`.
struct Peer {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool sent = false;
    explicit Peer(const std::string& bytes)
    {
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
        sent = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
               ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    ~Peer() { ::close(fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
};

std::string prefix(std::uint32_t n)
{
    return std::string(reinterpret_cast<const char*>(&n), sizeof(n));
}

std::string frame(const std::string& text)
{
    return prefix(static_cast<std::uint32_t>(text.size())) + text + std::string(1, '\0');
}

// The line the listener prints for a caller's report; texts JSON-escaped.
std::string reportLine(int kind, const std::string& caller, const std::string& description,
                       const std::string& fileType, const std::string& path)
{
    return "{\"Action/FileSend\":" + std::to_string(kind) + ",\"Report/Caller\":\"" + caller +
           "\",\"Report/Decription\":\"" + description + "\",\"Report/FileType\":\"" + fileType +
           "\",\"Report/Path\":\"" + path + "\",\"Report/ReportSeq\":\"SEQ\",\"State\":\"ShowNoti\","
           "\"TaskName\":\"UserBlockMsg\"}\n";
}

TEST(KzolReport, ReportsReachTheListener)
{
    TempDir dir;
    const std::vector<std::pair<std::string, std::string>> argsAndLines = {
        {"--caller c4 --type 4", ""},  // no kind bit: nothing sent
        {"--caller c0 --file-type SCRIPT --path /no/x.sh --description hello --type 0",
         reportLine(0, "c0", "hello", "SCRIPT", "/no/x.sh")},
        {"--caller c1 --file-type BIN --path /no/x.sh --description d --type 1",
         reportLine(1, "c1", "d", "BIN", "/no/x.sh")},
        {"--caller c2 --description 'say \"hi\" \\' --type 2", reportLine(2, "c2", "say \\\"hi\\\" \\\\", "", "")},
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

TEST(KzolListen, HostilePeersDoNotStopIt)
{
    struct Case {
        std::string bytes;
        bool keepOpen;
        std::string printed;  // what the peer's own frames make the listener print
        const char* says;     // on standard error
    };
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
        TempDir dir;
        Listener listener(dir.file("listen"),
                          std::string("--json-lines --receive-timeout 300 --count ") + (c.printed.empty() ? "1" : "2"));
        ASSERT_TRUE(listener.listening) << listener.err();
        auto peer = std::make_unique<Peer>(c.bytes);
        ASSERT_TRUE(peer->sent);
        if (!c.keepOpen) {
            peer.reset();
        }
        EXPECT_EQ(kzol("report --caller good --type 1"), 0);
        EXPECT_EQ(listener.finish(), 0) << listener.err();
        EXPECT_EQ(listener.out(), c.printed + reportLine(1, "good", "", "", ""));
        EXPECT_NE(listener.err().find(std::string("kzol listen: ") + c.says), std::string::npos) << listener.err();
    }
}

TEST(KzolListen, SigtermEndsItInsideAFrame)
{
    TempDir dir;
    Listener listener(dir.file("first"), "--receive-timeout 60000");
    ASSERT_TRUE(listener.listening) << listener.err();
    const Peer peer(prefix(50) + "{");  // keeps the listener waiting inside a frame
    ASSERT_TRUE(peer.sent);
    ::usleep(300000);
    EXPECT_EQ(listener.finish(SIGTERM), 0) << listener.err();
}

TEST(KzolVerify, PrintsTheLibrarysResult)
{
    TempDir dir;
    const std::string content = "#!/bin/sh\necho \"signed\"\n";
    struct Case {
        const char* name;
        std::string bytes;  // no file for "missing"
        int status;
        const char* out;
    };
    const std::vector<Case> cases = {
        // Signed by the openssl command alone, the block written by the test's own encoders.
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

}  // namespace
