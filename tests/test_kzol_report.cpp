// The kzol listen and report commands, run as programs. The
// test program has a network namespace of its own (inherited by the commands
// it starts), so its listeners hold the daemon's name without meeting a real one.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <future>
#include <regex>

#include "daemon.h"

using namespace kzol_test;

// `kzol listen ARGS` in the background, its standard output and error in
// files; `timeout` ends it with one SIGTERM after `seconds` (and kills it 10
// seconds later) and answers its own status. (Without --foreground, timeout
// would signal its whole process group again, and SIGCONT after it: signals
// that can reach the listener while it exits, and the ASan build's leak check
// that runs then.) `listening` tells whether it held the name within 30
// seconds of the start.
struct Listener {
    explicit Listener(const std::string& args, int seconds = 60)
    {
        status = std::async(std::launch::async, [this, args, seconds] {
            return run("timeout --foreground --preserve-status -k 10 " + std::to_string(seconds) + " " +
                       shq(KZOL_TOOL) + " listen " + args + " </dev/null >" + shq(output) + " 2>" + shq(errors));
        });
        listening = shows(errors, "listening on SfDaemon/UserMsg", 1, 30.0);
    }
    int finish() { return status.valid() ? status.get() : -1; }
    std::string err() const { return readFile(errors); }
    // The reports printed (once it finished), their sequence numbers written as SEQ.
    std::string out() const
    {
        static const std::regex sequence("\"Report/ReportSeq\":\"[^\"]*\"");
        return std::regex_replace(readFile(output), sequence, "\"Report/ReportSeq\":\"SEQ\"");
    }
    // Whether `file` holds `text` `times` times within `seconds`.
    static bool shows(const std::string& file, const std::string& text, int times, double seconds)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        for (int found = 0;; found = 0) {
            const std::string now = readFile(file);
            for (auto at = now.find(text); at != std::string::npos; at = now.find(text, at + 1)) {
                ++found;
            }
            if (found >= times || std::chrono::steady_clock::now() > end) {
                return found >= times;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    const TempDir dir;
    const std::string output = dir.file("output"), errors = dir.file("errors");
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
    // Nobody listens any more: an undelivered report makes it fail, unless none
    // was due (no kind bit: test_report pins that nothing is sent).
    std::string message;
    EXPECT_EQ(kzol("report --caller x --type 1", &message, ".", true), 1);
    EXPECT_EQ(message, "kzol: a report was not delivered to SfDaemon/UserMsg (is a daemon listening?)\n");
    EXPECT_EQ(kzol("report --caller x --type 4", &message, ".", true), 0);
    EXPECT_EQ(message, "");
}

// A peer of the listener: connected, `bytes` sent, its sending side shut when `closes`.
static UniqueFd peer(const std::string& bytes, bool closes = false)
{
    UniqueFd socket = abstractSocket("SfDaemon/UserMsg", false);
    EXPECT_EQ(send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    EXPECT_TRUE(!closes || shutdown(socket.get(), SHUT_WR) == 0);
    return socket;
}

// A field of /proc/PID/status, in kB.
static long statusKb(pid_t pid, const std::string& field)
{
    const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
    const auto at = status.find("\n" + field + ":");
    return at == std::string::npos ? -1 : std::stol(status.substr(at + field.size() + 2));
}

// Hostile peers all at once beside a real report: each is dropped with its
// reason and counted, none holds the report up, the listener's memory does not
// follow what peers declare or send, and SIGTERM inside a frame ends it cleanly.
TEST(KzolListen, HostilePeersAreDroppedAndHoldUpNoReport)
{
    Listener listener("--json-lines --receive-timeout 4000 --max-connections 32");
    ASSERT_TRUE(listener.listening) << listener.err();
    struct ucred listenerProcess {};
    socklen_t size = sizeof(listenerProcess);
    ASSERT_EQ(getsockopt(peer("").get(), SOL_SOCKET, SO_PEERCRED, &listenerProcess, &size), 0);
    const pid_t pid = listenerProcess.pid;
    const long peakKb = statusKb(pid, "VmPeak"), residentKb = statusKb(pid, "VmHWM");
    std::vector<UniqueFd> peers;

    // Peers that send and close, and what the listener says of each.
    const std::vector<std::pair<std::string, const char*>> closing = {
        {prefix(2) + "{}x", "sent a frame of 2 bytes without its terminating zero byte; dropped"},
        {prefix(50) + "{\"a\"", "closed the connection inside a frame; dropped"},
        {frame(std::string(60000, '[')), "frame of 60000 bytes is not JSON: [[["},
        {frame("[1]"), "frame of 3 bytes is JSON but not an object: [1]"},
    };
    for (const auto& [bytes, says] : closing) {
        peers.push_back(peer(bytes, true));
        EXPECT_TRUE(Listener::shows(listener.errors, says, 1, 20.0)) << says << "\n" << listener.err();
    }
    // Nearly 2 GiB declared, then up to 64 MiB sent, as far as the listener takes them.
    peers.push_back(peer(prefix(0x7FFFFFFEU)));
    const timeval sendLimit{5, 0};
    ASSERT_EQ(setsockopt(peers.back().get(), SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof(sendLimit)), 0);
    auto flood = std::async(std::launch::async, [fd = peers.back().get()] {
        const std::string mebibyte(1 << 20, 'x');
        for (int i = 0; i < 64 && send(fd, mebibyte.data(), mebibyte.size(), MSG_NOSIGNAL) > 0; ++i) {}
    });
    EXPECT_TRUE(Listener::shows(listener.errors,
                                "declared a frame of 2147483646 bytes, over the limit of 65536; dropped", 1, 20.0))
        << listener.err();

    // Forty silent peers (the ten oldest make room for the last two below),
    // then one that sends a frame a byte a second.
    for (int i = 0; i < 41; ++i) {
        peers.push_back(peer(""));
    }
    auto trickle = std::async(std::launch::async, [fd = peers.back().get()] {
        const std::string bytes = frame("{\"slow\":1}");
        for (std::size_t i = 0; i < bytes.size() && send(fd, &bytes[i], 1, MSG_NOSIGNAL) == 1; ++i) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    });
    const auto sent = std::chrono::steady_clock::now();
    peers.push_back(peer(frame(reportText(1, "good", "", "", "")), true));
    EXPECT_TRUE(Listener::shows(listener.output, "\"good\"", 1, 30.0));
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(2000));

    const std::vector<std::pair<const char*, int>> deadlines = {
        {"making room for a new one; dropped", 10},
        {"sent nothing within 4000 ms; dropped", 30},
        {"did not complete a frame within 4000 ms; dropped", 1},
    };
    for (const auto& [says, times] : deadlines) {
        EXPECT_TRUE(Listener::shows(listener.errors, says, times, 20.0)) << says << "\n" << listener.err();
    }
    // What the listener holds beyond its start: its frames, a few kB each.
    EXPECT_LT(statusKb(pid, "VmPeak") - peakKb, 32 * 1024);
    EXPECT_LT(statusKb(pid, "VmHWM") - residentKb, 32 * 1024);

    peers.push_back(peer(prefix(50) + "{"));
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_EQ(listener.finish(), 0) << listener.err();
    EXPECT_EQ(listener.out(), reportLine(1, "good"));
    EXPECT_NE(listener.err().find("kzol listen: 1 report printed, 2 frames refused, 44 connections dropped (30 sent "
                                  "nothing in time, 1 stalled inside a frame, 1 frame too long, 1 unterminated "
                                  "frame, 1 ended inside a frame, 10 over the connection limit)\n"),
              std::string::npos)
        << listener.err();
}
