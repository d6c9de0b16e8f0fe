// kzol enforce on an emulated television: what the kernel lets run from a
// marked file system, and that no failure of the daemon lets a refused file
// through. Each test runs in a mount and network namespace of its own, on a
// tmpfs of its own under /tmp (a user-writable area), and marks only that.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "daemon.h"
#include "enforce_cache.h"
#include "race.h"
#include "test_support.h"

#ifndef AT_EXECVE_CHECK
#define AT_EXECVE_CHECK 0x10000  // NOLINT(cppcoreguidelines-macro-usage): Linux 6.14, absent from older headers
#endif

using namespace kzol_test;

namespace {

const std::string c_script = "#!/bin/sh\nexit 0\n";
constexpr int c_denied = 126, c_noExecBit = 125, c_hung = -1;

// An attempt to run `path`, as a child process whose exit status tells how it
// ended: the program's own (0 here), or c_denied when the kernel answered
// EPERM. With `checkOnly`, an interpreter's question: execveat with
// AT_EXECVE_CHECK on an open descriptor, 0 when allowed.
Child launch(const std::string& path, bool checkOnly = false)
{
    return Child([&path, checkOnly] {
        char* const argv[] = {const_cast<char*>(path.c_str()), nullptr};
        char* const envp[] = {nullptr};
        if (checkOnly) {
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (syscall(SYS_execveat, fd, "", argv, envp, AT_EMPTY_PATH | AT_EXECVE_CHECK) == 0) {
                _exit(0);
            }
        } else {
            execve(path.c_str(), argv, envp);
        }
        _exit(errno == EPERM ? c_denied : errno == EACCES ? c_noExecBit : 100 + errno);
    });
}
// How the attempt ended; c_hung when nothing came within `seconds`.
int attempt(const std::string& path, bool checkOnly = false, int seconds = 10)
{
    return launch(path, checkOnly).wait(seconds);
}

// `kzol emulate PROFILE -- kzol enforce --mark AREA`, once it says it is ready.
Child enforcer(const std::string& profile, const std::string& area)
{
    int out[2] = {-1, -1};
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const UniqueFd output(out[0]);
    UniqueFd input(out[1]);
    Child daemon([&] {
        dup2(out[1], 1);
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a test that ended abruptly
        execl(KZOL_TOOL, "kzol", "emulate", profile.c_str(), "--", KZOL_TOOL, "enforce", "--mark", area.c_str(),
              "--workers", "2", static_cast<char*>(nullptr));
    });
    input.reset();
    const std::string ready = "kzol enforce: ready\n";
    std::string line;
    pollfd waiting{output.get(), POLLIN, 0};
    char c = 0;
    while (line.size() < ready.size() && poll(&waiting, 1, 10000) == 1 && read(output.get(), &c, 1) == 1) {
        line += c;
    }
    EXPECT_EQ(line, ready);
    return daemon;
}
// The worker process the daemon runs its event loop in.
pid_t workerOf(const Child& daemon)
{
    const std::string pid = std::to_string(daemon.pid());
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    pid_t child = -1;
    children >> child;
    return child;
}

class Enforce : public testing::Test {
protected:
    void SetUp() override
    {
        if (KZOL_CROSS_EMULATED) {
            GTEST_SKIP() << "cross-built: a user-mode emulator stands between this suite and the kernel's fanotify";
        }
        const UniqueFd probe(fanotify_init(FAN_CLASS_CONTENT, O_RDONLY));
        if (!probe) {
            GTEST_SKIP() << "fanotify refused here (" << std::strerror(errno)
                         << "): needs root outside a user namespace";
        }
        if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no private mount namespace here: " << std::strerror(errno);
        }
        ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
        char name[] = "/tmp/kzol-enforce-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        m_area = name;
        ASSERT_EQ(mount("tmpfs", name, "tmpfs", 0, "size=64m,mode=0755"), 0) << std::strerror(errno);
        m_mounted = true;
        // The scripts' shell is not built with the sanitizers that the
        // preloaded emulation may carry in a sanitizer build.
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    }
    void TearDown() override
    {
        if (m_mounted) {
            umount2(m_area.c_str(), MNT_DETACH);
        }
        if (!m_area.empty()) {
            rmdir(m_area.c_str());
        }
    }

    // A device profile on the marked file system: the daemon reads it (and a
    // disable certificate on its USB stick) from there without waiting on itself.
    std::string profile(const std::string& options)
    {
        const std::string dir = m_area + "/profile" + std::to_string(++m_profiles);
        EXPECT_EQ(kzol_test::kzol("profile init " + shq(dir) + " --tv " + options), 0);
        return dir;
    }
    std::string file(const std::string& name, const std::string& content, mode_t mode = 0755)
    {
        const std::string path = m_area + "/" + name;
        writeFile(path, content);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }
    static std::string program() { return readFile("/bin/true"); }
    static std::string sign(const std::string& content) { return signedFile(content, "P50", devPrivateKey('5')); }

    std::string m_area;
    bool m_mounted = false;
    int m_profiles = 0;
};

}  // namespace

TEST_F(Enforce, TheKernelRunsWhatTheLibraryAllows)
{
    std::string tampered = sign(c_script);
    tampered[10] ^= 1;
    const std::string duid = "DUID-ENFORCE-1";
    struct Case {
        const char* name;
        std::string profileOptions;
        std::string content;
        bool checkOnly;
        int expected;
        mode_t mode = 0755;
    };
    const std::vector<Case> cases = {
        {"unsigned ELF", "", program(), false, c_denied},
        {"unsigned ./script", "", c_script, false, c_denied},
        {"signed ELF", "", sign(program()), false, 0},
        {"signed script", "", sign(c_script), false, 0},
        {"tampered script", "", tampered, false, c_denied},
        {"AT_EXECVE_CHECK, unsigned", "", c_script, true, c_denied},
        {"AT_EXECVE_CHECK, signed", "", sign(c_script), true, 0},
        {"no x bit: refused before any event", "", sign(c_script), false, c_noExecBit, 0644},
        {"isolated container, not root", "--zone 0 1 --uid 5000", c_script, false, 0},
        {"isolated container, root", "--zone 0 1 --uid 0", c_script, false, c_denied},
        {"disable certificate for this device", "--duid " + duid + " --usb stick", c_script, false, 0},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string dir = profile(c.profileOptions);
        if (c.profileOptions.find("--usb") != std::string::npos) {
            writeFile(dir + "/usb/stick/RTZOLOFF.cer", certificate(duid, "P50", devPrivateKey('5')));
        }
        const std::string path = file("case" + std::to_string(++n), c.content, c.mode);
        Child daemon = enforcer(dir, m_area);
        EXPECT_EQ(attempt(path, c.checkOnly), c.expected);
        EXPECT_EQ(daemon.stop(c.name[0] == 'u' ? SIGINT : SIGTERM), 0);
    }
}

// An allowed run is remembered for the file in its state: a signed file whose
// bytes change afterwards (even with its modification time put back) is
// decided again, and refused.
TEST_F(Enforce, AFileChangedAfterAnAllowedRunIsDecidedAgain)
{
    const std::string signedScript = sign(c_script);
    const std::string path = file("changing.sh", signedScript);
    Child daemon = enforcer(profile(""), m_area);
    EXPECT_EQ(attempt(path), 0);
    EXPECT_EQ(attempt(path), 0);
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    std::string changed = signedScript;
    changed[10] ^= 1;
    writeFile(path, changed);
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_EQ(attempt(path), c_denied);
    // Once it is signed again, it runs again.
    writeFile(path, signedScript);
    EXPECT_EQ(attempt(path), 0);
}

// The worker that read an execution's event dies, or stalls, before it
// answers: the supervisor denies the event (a stalled worker is stopped after
// 10 s), starts a new worker, and enforcement goes on. The worker is held
// inside its decision by a device file that never answers (the profile's
// modules file, a FIFO without a writer).
TEST_F(Enforce, AWorkerThatDiesOrStallsWithAnExecutionPendingDeniesIt)
{
    const std::string good = file("good.sh", sign(c_script));
    for (const bool killed : {true, false}) {
        SCOPED_TRACE(killed ? "killed" : "stalled");
        const std::string dir = profile("");
        const std::string modules = readFile(dir + "/modules");
        ASSERT_EQ(unlink((dir + "/modules").c_str()), 0);
        ASSERT_EQ(mkfifo((dir + "/modules").c_str(), 0644), 0);
        Child daemon = enforcer(dir, m_area);
        const pid_t worker = workerOf(daemon);
        ASSERT_GT(worker, 0);
        Child pending = launch(good);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_EQ(pending.wait(0), c_hung) << "the execution did not wait for the worker's decision";
        if (killed) {
            ASSERT_EQ(kill(worker, SIGKILL), 0);
        }
        EXPECT_EQ(pending.wait(30), c_denied);
        ASSERT_EQ(unlink((dir + "/modules").c_str()), 0);
        writeFile(dir + "/modules", modules);
        EXPECT_EQ(attempt(good), 0);  // a new worker decides
        EXPECT_NE(workerOf(daemon), worker);
    }
}

// Every refusal reaches the security daemon (a listener in this test's own
// network namespace), naming the file by its path and the daemon as caller.
// Once stopped, the daemon's marks are gone and nothing waits on it.
TEST_F(Enforce, RefusalsAreReportedUntilItStops)
{
    DaemonListener listener;
    const std::string bad = file("bad.sh", c_script);
    Child daemon = enforcer(profile(""), m_area);
    EXPECT_EQ(attempt(bad), c_denied);
    EXPECT_EQ(attempt(bad), c_denied);
    Lines reports;
    for (int waited = 0; waited < 200 && reports.size() < 2; ++waited) {
        const Lines more = listener.drain();
        reports.insert(reports.end(), more.begin(), more.end());
        usleep(10000);
    }
    ASSERT_EQ(reports.size(), 2U);
    for (const std::string& report : reports) {
        EXPECT_NE(report.find("\"Report/Path\" : \"" + bad + "\""), std::string::npos) << report;
        EXPECT_NE(report.find("\"Report/Caller\" : \"kzol-enforce\""), std::string::npos) << report;
    }
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(attempt(bad, false, 2), 0);
}

// The daemon's cache of allowed file states: a move of any part of the state
// is a miss, and at its bound the least recently used state goes first.
TEST(EnforceCache, KnowsOnlyTheStatesItAllowedAndTheMostRecent)
{
    using kzol::FileState;
    const FileState base{1, 2, 3, {4, 5}, {6, 7}};
    const auto moved = [&base](void (*change)(FileState&)) {
        FileState state = base;
        change(state);
        return state;
    };
    const std::vector<std::pair<const char*, FileState>> others = {
        {"device", moved([](FileState& s) { s.device = 9; })},
        {"inode", moved([](FileState& s) { s.inode = 9; })},
        {"size", moved([](FileState& s) { s.size = 9; })},
        {"change time, seconds", moved([](FileState& s) { s.changed.tv_sec = 9; })},
        {"change time, nanoseconds", moved([](FileState& s) { s.changed.tv_nsec = 9; })},
        {"modification time, seconds", moved([](FileState& s) { s.modified.tv_sec = 9; })},
        {"modification time, nanoseconds", moved([](FileState& s) { s.modified.tv_nsec = 9; })},
    };
    kzol::VerdictCache cache(2);
    cache.rememberAllowed(base);
    EXPECT_TRUE(cache.allowed(base));
    for (const auto& [name, state] : others) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(cache.allowed(state));
    }
    cache.rememberAllowed(others[0].second);
    EXPECT_TRUE(cache.allowed(base));  // now the most recent
    cache.rememberAllowed(others[1].second);
    EXPECT_EQ(cache.size(), 2U);
    EXPECT_TRUE(cache.allowed(base));
    EXPECT_FALSE(cache.allowed(others[0].second));
    EXPECT_TRUE(cache.allowed(others[1].second));
}

// Without the privilege (here: inside a user namespace) one line and status 2;
// and it never marks the file system of its own program.
TEST(EnforceRefuses, WithoutPrivilegeOrOnItsOwnFileSystem)
{
    struct Case {
        const char* name;
        std::string launcher;  // "unshare --user ": a sanitizer's runtime thread would make this process refuse one
        std::string mark;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"user namespace", "unshare --user ", "/tmp", "kzol: enforce: the kernel refuses a fanotify group"},
        {"its own file system", "", KZOL_TOOL, "is on the file system of / or of this program's own files"},
        {"the root file system", "", "/", "is on the file system of / or of this program's own files"},
    };
    if (KZOL_CROSS_EMULATED) {
        GTEST_SKIP() << "cross-built: a user-mode emulator stands between this suite and the kernel";
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.launcher.empty() && !UniqueFd(fanotify_init(FAN_CLASS_CONTENT, O_RDONLY))) {
            continue;  // refused earlier, for want of the privilege
        }
        std::string text;
        EXPECT_EQ(run(c.launcher + shq(KZOL_TOOL) + " enforce --mark " + shq(c.mark) + " 2>&1 >/dev/null", &text), 2);
        EXPECT_NE(text.find(c.message), std::string::npos) << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    }
}
