// Files a hostile user can leave in a user-writable area: each gets a definite
// answer in bounded time from the exported entry point on a television.
#include <signal.h>
#include <sys/sysmacros.h>

#include <future>

#include "daemon.h"
#include "device.h"
#include "kZOLUser.h"

using namespace kzol_test;

namespace {

const std::string c_script = "#!/bin/sh\necho hostile\n";

// The entry point's answer; a call that has not answered within the limit
// ends the whole program, since its thread cannot be taken back.
int answerOf(const std::string& path)
{
    auto call = std::async(std::launch::async, [path] { return verifyFileWihtoutKey(path.c_str(), "loader"); });
    if (call.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        std::printf("no answer within 30 s for %s\n", path.c_str());
        std::fflush(stdout);
        std::_Exit(1);
    }
    return call.get();
}

}  // namespace

// Answer, report and the readability probe's line for each kind of file.
TEST(HostileFiles, DefiniteAnswers)
{
    const bool root = geteuid() == 0;  // the process's own, before the profile answers
    UserArea area;
    ASSERT_EQ(mkfifo(area.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(area.file("directory").c_str(), 0700), 0);
    ASSERT_EQ(symlink(area.file("loop-b").c_str(), area.file("loop-a").c_str()), 0);
    ASSERT_EQ(symlink(area.file("loop-a").c_str(), area.file("loop-b").c_str()), 0);
    if (root) {
        ASSERT_EQ(mknod(area.file("zero").c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
    }
    // A signed script moved past 4 GiB by a hole: its block is at the end, but
    // no block lies beyond 4 GiB, and nothing of the hole is read.
    writeFile(area.file("sparse"), "");
    ASSERT_EQ(truncate(area.file("sparse").c_str(), off_t{1} << 32), 0);
    appendFile(area.file("sparse"), signedFile(c_script, "P50", devPrivateKey('5')));
    std::string longName = area.path;
    for (; longName.size() < 4096; longName += "/d") {}
    longName.resize(4096);

    // Each is refused, as the library cannot vouch for it.
    struct Case {
        std::string name, path;
        bool reported;
        std::string err;  // the readability probe's line; the verification's own lines follow
    };
    const auto probe = [&](const std::string& name, int error) {
        return "\033[1;31m[zol][" + area.file(name) + ":" + std::strerror(error) + "][" + std::to_string(error) +
               "];\033[0m\n";
    };
    std::vector<Case> cases = {
        {"fifo without a writer", area.file("fifo"), true, probe("fifo", ENXIO)},
        {"directory", area.file("directory"), true, probe("directory", EISDIR)},
        {"symbolic link loop", area.file("loop-a"), false, ""},
        {"name of 4096 bytes", longName, false, ""},
        {"4 GiB hole before a signed script", area.file("sparse"), true, ""},
    };
    if (root) {
        cases.push_back({"character device", area.file("zero"), true, probe("zero", ENXIO)});
    }
    DaemonListener daemon;
    for (const auto& c : cases) {
        StderrCapture err;
        EXPECT_EQ(answerOf(c.path), 0) << c.name;
        EXPECT_EQ(err.finish().substr(0, c.err.size()), c.err) << c.name;
        EXPECT_EQ(daemon.drain(), c.reported ? Lines{refusalFrame(c.path)} : Lines{}) << c.name;
    }
}

// A file under a write lease: the library's open breaks the lease and waits
// for the break, as a blocking open would, and then checks the file.
TEST(HostileFiles, FileUnderALeaseIsWaitedFor)
{
    const UserArea area;
    const std::string path = area.file("leased.sh");
    writeFile(path, signedFile(c_script, "P50", devPrivateKey('5')));
    static int s_leased = -1;
    s_leased = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const UniqueFd leased(s_leased);
    ASSERT_TRUE(leased);
    struct sigaction release {};
    release.sa_handler = [](int) { (void)fcntl(s_leased, F_SETLEASE, F_UNLCK); };
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGIO, &release, &before), 0);
    ASSERT_EQ(fcntl(leased.get(), F_SETLEASE, F_WRLCK), 0) << std::strerror(errno);
    DaemonListener daemon;
    clearLog();
    EXPECT_EQ(answerOf(path), 1);
    // The readability probe waited too: no line of an unreadable file.
    EXPECT_EQ(loggedLines(), Lines{checkLine("Correct Signed", path)});
    EXPECT_EQ(daemon.drain(), Lines{});
    (void)sigaction(SIGIO, &before, nullptr);
}
