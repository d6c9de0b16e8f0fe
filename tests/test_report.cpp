// Reports to the security daemon: the refusal notification and a component's
// own reports, received by a real listener on the daemon's abstract socket
// name (each test program has a network namespace, and so a socket
// namespace, of its own).
#include <gtest/gtest.h>
#include <json/json.h>

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bs_context.h"
#include "daemon.h"
#include "test_support.h"

extern "C" int SendSecurityReport(const char* caller, const char* fileType, const char* path,
                                  const char* description, int type);

using kzol_test::errorLine;
using kzol_test::infoLine;
using kzol_test::LogRecorder;
using kzol_test::TempDir;
using kzol_test::frame;
using kzol_test::onlyFrameText;
using Listener = kzol_test::DaemonListener;

namespace {

// ---- the clock and connect(), seen at the process boundary -----------------

std::atomic<bool> g_fixedClock{false};
timespec g_fixedTime{};

// When set, connect() waits after connecting until this listener has accepted
// and closed that connection: the report then meets a peer that is gone.
std::atomic<kzol_test::DaemonListener*> g_closingListener{nullptr};
std::atomic<int> g_closingConnects{0};
std::mutex g_closeMutex;
std::condition_variable g_closeSignal;

// When set, the second connect() waits until the daemon has gone.
std::atomic<bool> g_holdSecondConnect{false};
std::atomic<int> g_connects{0};
bool g_daemonGone = false;

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time)
{
    using Real = int (*)(clockid_t, timespec*);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "clock_gettime"));
    if (clock == CLOCK_REALTIME && g_fixedClock) {
        *time = g_fixedTime;
        return 0;
    }
    return real(clock, time);
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t length)
{
    using Real = int (*)(int, const sockaddr*, socklen_t);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "connect"));
    if (g_holdSecondConnect && ++g_connects == 2) {
        std::unique_lock<std::mutex> lock(g_closeMutex);
        g_closeSignal.wait_for(lock, std::chrono::seconds(10), [] { return g_daemonGone; });
    }
    const int rc = real(fd, address, length);
    kzol_test::DaemonListener* listener = g_closingListener;
    if (rc == 0 && listener != nullptr) {
        listener->waitClosed(++g_closingConnects);
    }
    return rc;
}

namespace {

Json::Value parse(const std::string& text)
{
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
    return value;
}

void fixClock(int hour, int minute, int second, long micro)
{
    g_fixedTime.tv_sec = hour * 3600 + minute * 60 + second + 20000 * 86400L;
    g_fixedTime.tv_nsec = micro * 1000 + 999;  // sub-microsecond part is dropped
    g_fixedClock = true;
}

struct ClockReset {
    ~ClockReset() { g_fixedClock = false; }
};

std::string startReport()
{
    return infoLine("main.cpp", "SendSecurityReport", "Start Send Report");
}
std::string kindLine(const std::string& caller, const std::string& kind)
{
    return infoLine("main.cpp", "SendSecurityReport",
                    "[zol][" + caller + "]! : \033[1;33mSendRequest [" + kind + "]\033[0m");
}
std::string notificationError(const std::string& caller)
{
    return errorLine("main.cpp", "SendSecurityReport",
                     "[zol][" + caller + "]! : \033[1;31mSendRequest Notification Error\033[0m");
}
const std::string c_connectError = errorLine("UnixSocket.cpp", "ConnectToHost", "connect() error ;");
const std::string c_noDaemon =
    errorLine("bs_context.cpp", "SendRequestNotification", "Failed to connect to vexmd;");

}  // namespace

TEST(Report, RefusalFrameByteForByte)
{
    ClockReset reset;
    fixClock(9, 30, 15, 123456);
    Listener daemon;
    const BSContext context;
    EXPECT_TRUE(context.SendRequestNotification("/tmp/a.sh", "loader", BS_NOT_SIGNED));
    const auto streams = daemon.streams(1);
    ASSERT_EQ(streams.size(), 1u);
    const std::string expected =
        "{\n"
        "\t\"Action/FileSend\" : 1,\n"
        "\t\"Report/Caller\" : \"loader\",\n"
        "\t\"Report/Decription\" : \"ver:\\\"1\\\",subject:\\\"/tmp/a.sh\\\",object:\\\"loader\\\","
        "result:\\\"BS_NOT_SIGNED\\\",\",\n"
        "\t\"Report/FileType\" : \"SCRIPT\",\n"
        "\t\"Report/Path\" : \"/tmp/a.sh\",\n"
        "\t\"Report/ReportSeq\" : \"093015123456\",\n"
        "\t\"State\" : \"ShowNoti\",\n"
        "\t\"TaskName\" : \"UserBlockMsg\"\n"
        "}";
    EXPECT_EQ(streams[0], frame(expected));
}

TEST(Report, DescriptionNamesEachResult)
{
    const BSContext context;
    struct Case {
        const char* subject;
        const char* object;
        int result;
        std::string description;
    };
    const std::vector<Case> cases = {
        {"/tmp/a.sh", "loader", 4, R"(ver:"1",subject:"/tmp/a.sh",object:"loader",result:"BS_NOT_SIGNED",)"},
        {"", "", 0, R"(ver:"1",subject:"",object:"",result:"BS_ERROR",)"},
        {"s", "o", 2, R"(ver:"1",subject:"s",object:"o",result:"BS_INVALID_FILE_TYPE",)"},
        {"s", "o", 6, R"(ver:"1",subject:"s",object:"o",result:"BS_SIGNATURE_INCORRECT",)"},
        {"s", "o", 5, R"(ver:"1",subject:"s",object:"o",result:"",)"},
        {"s", "o", 1, R"(ver:"1",subject:"s",object:"o",result:"",)"},
        {"s", "o", 3, R"(ver:"1",subject:"s",object:"o",result:"",)"},
        {"s", "o", -4, R"(ver:"1",subject:"s",object:"o",result:"",)"},
        {"a\"b,c", "x\"", 4, R"(ver:"1",subject:"a"b,c",object:"x"",result:"BS_NOT_SIGNED",)"},  // not escaped
        {nullptr, nullptr, 0, R"(ver:"1",subject:"",object:"",result:"BS_ERROR",)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(context.ComposeDescription(c.subject, c.object, static_cast<Result>(c.result)), c.description);
    }
}

TEST(Report, ReportSequenceFollowsTheClock)
{
    ClockReset reset;
    struct Case {
        int h, m, s;
        long micro;
        const char* sequence;
    };
    const std::vector<Case> cases = {
        {0, 0, 0, 5, "0000005"},
        {9, 30, 15, 123456, "093015123456"},
        {23, 59, 59, 999999, "235959999999"},
        {12, 0, 1, 0, "1200010"},
    };
    Listener daemon;
    const BSContext context;
    for (const auto& c : cases) {
        fixClock(c.h, c.m, c.s, c.micro);
        EXPECT_TRUE(context.SendRequestNotification("/opt/x", "c", BS_ERROR));
    }
    g_fixedClock = false;
    const auto streams = daemon.streams(cases.size());
    ASSERT_EQ(streams.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(parse(onlyFrameText(streams[i]))["Report/ReportSeq"].asString(), cases[i].sequence);
    }
}

TEST(Report, ReportTypesAndWhatTheyLog)
{
    struct Case {
        int type;
        std::vector<int> kinds;  // "Action/FileSend" of each frame, in order
        std::vector<std::string> log;
    };
    const std::vector<Case> cases = {
        {0, {0}, {startReport(), kindLine("comp", "LogReport")}},
        {1, {1}, {startReport(), kindLine("comp", "FileReport")}},
        {2, {2}, {startReport(), kindLine("comp", "DataReport")}},
        {3, {1, 2}, {startReport(), kindLine("comp", "FileReport"), kindLine("comp", "DataReport")}},
        {4, {}, {startReport()}},
        {8, {}, {startReport()}},
        {5, {1}, {startReport(), kindLine("comp", "FileReport")}},
        {-1, {1, 2}, {startReport(), kindLine("comp", "FileReport"), kindLine("comp", "DataReport")}},
    };
    for (const auto& c : cases) {
        Listener daemon;
        LogRecorder::clear();
        EXPECT_EQ(SendSecurityReport("comp", "APP", "/nonexistent/p", "desc", c.type), 0) << c.type;
        const auto streams = daemon.streams(c.kinds.size());
        daemon.stop();
        ASSERT_EQ(daemon.streams(0).size(), c.kinds.size()) << c.type;
        for (std::size_t i = 0; i < c.kinds.size(); ++i) {
            const Json::Value message = parse(onlyFrameText(streams[i]));
            EXPECT_EQ(message.size(), 8u);
            EXPECT_TRUE(message["Action/FileSend"].isInt());
            EXPECT_EQ(message["Action/FileSend"].asInt(), c.kinds[i]) << c.type;
            for (const auto& [key, value] : std::map<std::string, std::string>{
                     {"TaskName", "UserBlockMsg"}, {"State", "ShowNoti"}, {"Report/Caller", "comp"},
                     {"Report/FileType", "APP"}, {"Report/Decription", "desc"}, {"Report/Path", "/nonexistent/p"}}) {
                EXPECT_EQ(message[key].asString(), value) << key;
            }
        }
        EXPECT_EQ(LogRecorder::lines(), c.log) << c.type;
    }
}

TEST(Report, TextsAreCutAndPathsResolved)
{
    TempDir dir;
    kzol_test::writeFile(dir.file("real.sh"), "x");
    ASSERT_EQ(symlink(dir.file("real.sh").c_str(), dir.file("link.sh").c_str()), 0);
    char resolvedDir[4097];
    ASSERT_NE(realpath(dir.path().c_str(), resolvedDir), nullptr);
    const std::string real = std::string(resolvedDir) + "/real.sh";
    char cwd[4097];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);

    const std::string caller17 = "abcdefghijklmnopq";
    const std::string longPath = "/nonexistent/" + std::string(300, 'p');
    struct Case {
        const char* caller;
        const char* fileType;
        const char* path;
        const char* description;
        std::map<std::string, std::string> members;
    };
    const std::string description2000(2000, 'd');
    const std::vector<Case> cases = {
        {caller17.c_str(), "A-FILE-TYPE-OF-20-BY", "real.sh", description2000.c_str(),
         {{"Report/Caller", caller17.substr(0, 16)}, {"Report/FileType", "A-FILE-TYPE-OF-2"},
          {"Report/Path", real}, {"Report/Decription", description2000.substr(0, 1024)}}},
        {"c", "t", "./sub/../link.sh", "d", {{"Report/Path", real}}},
        {"c", "t", longPath.c_str(), "d", {{"Report/Path", longPath.substr(0, 256)}}},
        {"c", "t", "missing/relative", "d", {{"Report/Path", "missing/relative"}}},
        {nullptr, nullptr, nullptr, nullptr,
         {{"Report/Caller", ""}, {"Report/FileType", ""}, {"Report/Path", ""}, {"Report/Decription", ""}}},
    };
    ASSERT_EQ(mkdir("sub", 0700), 0);
    for (const auto& c : cases) {
        Listener daemon;
        EXPECT_EQ(SendSecurityReport(c.caller, c.fileType, c.path, c.description, 1), 0);
        const auto streams = daemon.streams(1);
        ASSERT_EQ(streams.size(), 1u);
        const Json::Value message = parse(onlyFrameText(streams[0]));
        for (const auto& [key, value] : c.members) {
            EXPECT_EQ(message[key].asString(), value) << key;
        }
    }
    ASSERT_EQ(chdir(cwd), 0);

    // A refusal carries the caller cut in its member but whole in the description.
    Listener daemon;
    EXPECT_TRUE(BSContext().SendRequestNotification(longPath, caller17.c_str(), BS_SIGNATURE_INCORRECT));
    const Json::Value message = parse(onlyFrameText(daemon.streams(1).at(0)));
    EXPECT_EQ(message["Report/Caller"].asString(), caller17.substr(0, 16));
    EXPECT_EQ(message["Report/Path"].asString(), longPath.substr(0, 256));
    EXPECT_EQ(message["Report/Decription"].asString(),
              "ver:\"1\",subject:\"" + longPath + "\",object:\"" + caller17 + "\",result:\"BS_SIGNATURE_INCORRECT\",");
    EXPECT_EQ(message["Report/FileType"].asString(), "SCRIPT");
    EXPECT_EQ(message["Action/FileSend"].asInt(), 1);
}

TEST(Report, NobodyListening)
{
    LogRecorder::clear();
    EXPECT_FALSE(BSContext().SendRequestNotification("/opt/a.sh", "loader", BS_NOT_SIGNED));
    EXPECT_EQ(LogRecorder::lines(), (std::vector<std::string>{c_connectError, c_noDaemon}));

    LogRecorder::clear();
    EXPECT_EQ(SendSecurityReport("comp", "t", "/p", "d", 3), 1);
    EXPECT_EQ(LogRecorder::lines(),
              (std::vector<std::string>{startReport(), kindLine("comp", "FileReport"), c_connectError, c_noDaemon,
                                        notificationError("comp"), kindLine("comp", "DataReport"), c_connectError,
                                        c_noDaemon, notificationError("comp")}));
}

TEST(Report, OnlyTheSecondOfTwoFails)
{
    // The daemon takes the file report and is gone before the data report
    // connects: the second connect waits until the daemon has stopped.
    Listener daemon;
    std::thread stopper([&] {
        daemon.streams(1);
        daemon.stop();
        std::lock_guard<std::mutex> lock(g_closeMutex);
        g_daemonGone = true;
        g_closeSignal.notify_all();
    });
    g_daemonGone = false;
    g_connects = 0;
    g_holdSecondConnect = true;
    LogRecorder::clear();
    EXPECT_EQ(SendSecurityReport("comp", "t", "/p", "d", 3), 1);
    g_holdSecondConnect = false;
    stopper.join();
    const auto streams = daemon.streams(0);
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(parse(onlyFrameText(streams[0]))["Action/FileSend"].asInt(), 1);
    EXPECT_EQ(LogRecorder::lines(),
              (std::vector<std::string>{startReport(), kindLine("comp", "FileReport"), kindLine("comp", "DataReport"),
                                        c_connectError, c_noDaemon, notificationError("comp")}));
}

TEST(Report, PeerGoneBeforeTheWrite)
{
    Listener daemon(/*closeAtOnce=*/true);
    g_closingConnects = 0;
    g_closingListener = &daemon;
    LogRecorder::clear();
    kzol_test::StderrCapture err;
    const bool sent = BSContext().SendRequestNotification("/opt/a.sh", "loader", BS_NOT_SIGNED);
    const int reported = SendSecurityReport("comp", "t", "/p", "d", 1);
    g_closingListener = nullptr;
    EXPECT_TRUE(sent);
    EXPECT_EQ(reported, 0);
    EXPECT_EQ(err.finish(), "send() error ;\nsend() error ;\n");
    const auto lines = LogRecorder::lines();
    ASSERT_EQ(lines.size(), 4u);
    const std::string failed = errorLine("bs_context.cpp", "SendRequestNotification", "Failed to send request [{");
    EXPECT_EQ(lines[0].substr(0, failed.size() - 4), failed.substr(0, failed.size() - 4));
    EXPECT_NE(lines[0].find("\"Report/Path\" : \"/opt/a.sh\""), std::string::npos);
    EXPECT_EQ(lines[1], startReport());
    EXPECT_EQ(lines[2], kindLine("comp", "FileReport"));
    EXPECT_EQ(lines[3].substr(0, failed.size() - 4), failed.substr(0, failed.size() - 4));
}

TEST(Report, ManyThreadsAtOnce)
{
    constexpr int c_threads = 16;
    constexpr int c_each = 8;
    Listener daemon;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < c_threads; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < c_each; ++i) {
                const std::string description = "report " + std::to_string(t) + "/" + std::to_string(i) +
                                                std::string(static_cast<std::size_t>(100 * i), '.');
                if (SendSecurityReport("thread", "t", "/p", description.c_str(), 1) != 0) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    const auto streams = daemon.streams(c_threads * c_each);
    ASSERT_EQ(streams.size(), static_cast<std::size_t>(c_threads * c_each));
    std::set<std::string> seen;
    for (const auto& stream : streams) {
        const std::string description = parse(onlyFrameText(stream))["Report/Decription"].asString();
        seen.insert(description.substr(0, description.find('.')));
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(c_threads * c_each));
}
