// Reports to the security daemon: the refusal notification and a component's
// own reports, received by a real listener on the daemon's abstract socket
// name (each test program has a network namespace, and so a socket
// namespace, of its own).

#include <dlfcn.h>
#include <sys/socket.h>

#include "bs_context.h"
#include "daemon.h"
#include "kZOLUser.h"

using namespace kzol_test;

// While set, each connection the process makes is shut for writing as soon as
// it is made, so the report's write fails (EPIPE) as it does when the daemon
// has gone.
static bool g_shutAfterConnect = false;

extern "C" int connect(int fd, const sockaddr* address, socklen_t length)
{
    static const auto real = reinterpret_cast<int (*)(int, const sockaddr*, socklen_t)>(dlsym(RTLD_NEXT, "connect"));
    const int rc = real(fd, address, length);
    if (rc == 0 && g_shutAfterConnect) {
        shutdown(fd, SHUT_WR);
    }
    return rc;
}

static const std::string c_start = infoLine("main.cpp", "SendSecurityReport", "Start Send Report");

static std::string kindLine(const std::string& caller, const std::string& kind)
{
    return infoLine("main.cpp", "SendSecurityReport",
                    "[zol][" + caller + "]! : \033[1;33mSendRequest [" + kind + "]\033[0m");
}

// A refusal names the result in its description (subject and object whole and
// unescaped), cuts caller and path, and numbers itself by the time of day.
TEST(Report, RefusalsNameTheResultAndTheMoment)
{
    const std::string caller17 = "abcdefghijklmnopq", longPath = "/nonexistent/" + std::string(300, 'p');
    struct Case {
        int h, m, s, micro;
        const char* sequence;
        int result;
        std::string name, subject;
        const char* object;
        long long day = 20000;
    };  // days since 1970: 20000 is in 2024
    const std::vector<Case> cases = {
        {9, 30, 15, 5, "0930155", 0, "BS_ERROR", "", ""},
        {23, 59, 59, 999999, "235959999999", 2, "BS_INVALID_FILE_TYPE", "s", "o"},
        {12, 0, 1, 0, "1200010", 6, "BS_SIGNATURE_INCORRECT", longPath, caller17.c_str()},
        {1, 2, 3, 4, "0102034", 5, "", "a\"b,c", "x\""},
        {1, 2, 3, 4, "0102034", 3, "", "s", "o"},
        {1, 2, 3, 4, "0102034", 1, "", "s", nullptr},  // the clock as it was
        // A 32-bit time_t ends at 2^31 s (2038-01-19 03:14:08) and wraps at 2^32 s (2106-02-07 06:28:16).
        {3, 14, 7, 999999, "031407999999", 0, "BS_ERROR", "s", "o", 24855},
        {3, 14, 8, 1, "0314081", 0, "BS_ERROR", "s", "o", 24855},
        {6, 28, 16, 2, "0628162", 0, "BS_ERROR", "s", "o", 49710},
    };
    // The suites after this one in the same process expect the clock they
    // started with.
    struct ClockRestored {
        const timespec saved = g_reportTime;
        ~ClockRestored() { g_reportTime = saved; }
    } const restored;
    DaemonListener daemon;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.sequence) + " on day " + std::to_string(c.day));
        g_reportTime = {static_cast<time_t>(c.day * 86400 + c.h * 3600 + c.m * 60 + c.s),
                        c.micro * 1000L + 999};  // nanoseconds are dropped
        const std::string object = c.object != nullptr ? c.object : "";
        EXPECT_TRUE(BSContext().SendRequestNotification(c.subject, c.object, static_cast<Result>(c.result)));
        const std::string description =
            "ver:\"1\",subject:\"" + c.subject + "\",object:\"" + object + "\",result:\"" + c.name + "\",";
        EXPECT_EQ(daemon.drain(), Lines{frame(reportText(1, object.substr(0, 16), "SCRIPT", description,
                                                         c.subject.substr(0, 256), c.sequence))});
    }
}

// A component's reports: the kinds each type asks for, what they log, and
// the texts cut to 16/16/256/1024 bytes with the path resolved when it can be.
TEST(Report, ReportTypesCutsAndPaths)
{
    const std::string caller17 = "abcdefghijklmnopq", longPath = "/x/" + std::string(300, 'p'), text2000(2000, 'd');
    using Texts = std::vector<const char*>;  // caller, file type, path, description
    struct Case {
        int type;
        std::vector<int> kinds;  // of the frames, in order
        Texts in = {"comp", "APP", "/nonexistent/p", "desc"};
        Lines out = {"comp", "APP", "/nonexistent/p", "desc"};  // as received
    };
    const std::vector<Case> cases = {
        {0, {0}},
        {1, {1}},
        {2, {2}},
        {3, {1, 2}},
        {4, {}},
        {8, {}},
        {5, {1}},
        {-1, {1, 2}},
        {1,
         {1},
         {caller17.c_str(), "A-FILE-TYPE-OF-20-BY", "/./.", text2000.c_str()},
         {caller17.substr(0, 16), "A-FILE-TYPE-OF-2", "/", text2000.substr(0, 1024)}},
        {2, {2}, {"c", "t", longPath.c_str(), "d"}, {"c", "t", longPath.substr(0, 256), "d"}},
        {1, {1}, {nullptr, nullptr, nullptr, nullptr}, {"", "", "", ""}},
    };
    const char* const kindNames[] = {"LogReport", "FileReport", "DataReport"};
    DaemonListener daemon;
    for (const auto& c : cases) {
        clearLog();
        EXPECT_EQ(SendSecurityReport(c.in[0], c.in[1], c.in[2], c.in[3], c.type), 0) << c.type;
        Lines log = {c_start}, frames;
        for (const int kind : c.kinds) {
            log.push_back(kindLine(c.in[0] != nullptr ? c.in[0] : "(null)", kindNames[kind]));
            frames.push_back(frame(reportText(kind, c.out[0], c.out[1], c.out[3], c.out[2])));
        }
        EXPECT_EQ(daemon.drain(), frames) << c.type;
        EXPECT_EQ(loggedLines(), log) << c.type;
    }
}

// Nobody listening: each failed report is logged, the next one is still
// tried, the answer is 1. A write that fails is logged; the answer is still a
// success, and no SIGPIPE ends the process.
TEST(Report, NobodyListeningAndFailedWrite)
{
    const Lines& none = c_noDaemonLines;
    clearLog();
    EXPECT_EQ(SendSecurityReport("comp", "t", "/p", "d", 3), 1);
    const std::string failed =
        errorLine("main.cpp", "SendSecurityReport", "[zol][comp]! : \033[1;31mSendRequest Notification Error\033[0m");
    EXPECT_EQ(loggedLines(), (Lines{c_start, kindLine("comp", "FileReport"), none[0], none[1], failed,
                                    kindLine("comp", "DataReport"), none[0], none[1], failed}));
    DaemonListener daemon;
    clearLog();
    StderrCapture err;
    g_shutAfterConnect = true;
    EXPECT_EQ(SendSecurityReport("comp", "t", "/p", "d", 1), 0);
    g_shutAfterConnect = false;
    EXPECT_EQ(err.finish(), "send() error ;\n");
    EXPECT_EQ(loggedLines(),
              (Lines{c_start, kindLine("comp", "FileReport"),
                     errorLine("bs_context.cpp", "SendRequestNotification",
                               "Failed to send request [" + reportText(1, "comp", "t", "d", "/p") + "];")}));
}
