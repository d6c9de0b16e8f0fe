// Decisions bound to the open file, on an emulated television. The doors that
// a decision by name leaves open, each with the default build's answer (the
// described one) and the hardened build's; absurd signature texts, answered
// as the described loader answers them without reading them into memory; a
// listener that took the daemon's name first; and the path race: a writer who
// swaps a directory of the path for a link out of the areas while a decision
// looks, against a decision by name, verifyOpenFileToRun and kzol exec.
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <iostream>

#include "daemon.h"
#include "device.h"
#include "handles.h"
#include "kZOLUser.h"
#include "race.h"

using namespace kzol_test;

namespace {

constexpr bool c_failClosed = KZOL_FAIL_CLOSED != 0;
const std::string c_inside = "#!/bin/sh\necho INSIDE-UNSIGNED\n";
const std::string c_outside = "#!/bin/sh\necho OUTSIDE\n";

long peakKiB()
{
    const std::string status = readFile("/proc/self/status");
    const std::size_t at = status.find("VmHWM:");
    return at == std::string::npos ? -1 : std::stol(status.substr(at + 6));
}

}  // namespace

// A file that a name does not lead to any more: by name, the default build
// lets it run as "outside the areas" (its real path cannot be resolved) and
// the hardened build checks it; by its descriptor, both builds check it.
TEST(ObjectBound, DoorsOfTheDecisionByName)
{
    const UserArea area;
    struct Row {
        const char* name;
        std::function<UniqueFd()> open;
        std::string reportedPath;  // by descriptor: the kernel's path
    };
    const auto deleted = [&] {
        writeFile(area.file("gone.sh"), c_inside);
        UniqueFd fd(open(area.file("gone.sh").c_str(), O_RDONLY | O_CLOEXEC));
        std::filesystem::remove(area.file("gone.sh"));
        return fd;
    };
    const auto memory = [] {
        UniqueFd fd(memfd_create("script", MFD_CLOEXEC));
        EXPECT_EQ(write(fd.get(), c_inside.data(), c_inside.size()), static_cast<ssize_t>(c_inside.size()));
        return fd;
    };
    const Row rows[] = {
        {"opened, then deleted", deleted, area.file("gone.sh (deleted)")},
        {"a memory file", memory, "/memfd:script (deleted)"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const UniqueFd fd = row.open();
        ASSERT_TRUE(fd);
        const std::string byName = "/proc/self/fd/" + std::to_string(fd.get());
        DaemonListener daemon;
        EXPECT_EQ(verifyFileWihtoutKey(byName.c_str(), "loader"), c_failClosed ? 0 : 1);
        EXPECT_EQ(daemon.drain(), c_failClosed ? Lines{refusalFrame(byName)} : Lines{});
        kzol_decision decision{};
        EXPECT_EQ(verifyOpenFile(fd.get(), "loader", &decision), 0);
        EXPECT_EQ(decision.step, KZOL_STEP_SIGNATURE);
        EXPECT_EQ(decision.result, KZOL_RESULT_NOT_SIGNED);
        EXPECT_EQ(daemon.drain(), Lines{refusalFrame(row.reportedPath)});
    }
}

// The excluded directories below /tmp count, in the hardened build, only
// where no user but root can have made them or put the file there.
TEST(ObjectBound, ExcludedDirectoryMadeByAnotherUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to make a directory of another user";
    }
    const DeviceProfile device;
    const std::string base = "/tmp/var/tmp/rpm-tmp.kzol-" + std::to_string(getpid());
    struct Row {
        const char* name;
        uid_t owner;
        mode_t mode;
        int answer;
    };
    const Row rows[] = {
        {"made by root, writable by root alone", 0, 0755, 1},
        {"made by another user", 65534, 0755, c_failClosed ? 0 : 1},
        {"made by root, writable by others", 0, 0777, c_failClosed ? 0 : 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string script = base + "/run.sh";
        writeFile(script, c_inside);
        ASSERT_EQ(chown(base.c_str(), row.owner, row.owner), 0);
        ASSERT_EQ(chmod(base.c_str(), row.mode), 0);
        DaemonListener daemon;
        EXPECT_EQ(verifyFileWihtoutKey(script.c_str(), "loader"), row.answer);
        const UniqueFd fd(open(script.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(verifyOpenFile(fd.get(), "loader", nullptr), row.answer);
        EXPECT_EQ(daemon.drain(), row.answer == 1 ? Lines() : Lines(2, refusalFrame(script)));
        std::filesystem::remove_all(base);
    }
}

// Texts far longer than any key's signature: the answer, the lines and the
// report of the described loader, without the text in memory.
TEST(ObjectBound, AbsurdSignatureTexts)
{
    const UserArea area;
    const std::string head = "#!/bin/sh\necho x\nP50";
    const std::string digits(20000, 'a');
    const std::string invalidMpi =
        errorLine("verify_context.cpp", "checkMPI", "VerifyContext::checkMPI(): invalid MPI format");
    const std::string invalidPair =
        errorLine("string_utils.cpp", "fromMPIString", "fromMPIString(): invalid value found");
    const std::string file = area.file("absurd.sh");
    struct Row {
        const char* name;
        std::string text;    // empty: a sparse text of c_sparseText zero bytes
        const char* result;  // in the report
        Lines lines;         // after the policy's own
    };
    constexpr unsigned long long c_sparseText = 3ULL << 30U;
    const Row rows[] = {
        {"3 GiB hole", "", "BS_ERROR", {invalidMpi}},
        {"digit pairs only", "0x" + digits, "BS_SIGNATURE_INCORRECT", {checkLine("Incorrect Signed", file)}},
        {"an odd count of digits", "0x" + digits + "a", "BS_ERROR", {invalidPair, invalidMpi}},
        {"an invalid digit far in", "0x" + digits + "g" + digits, "BS_ERROR", {invalidPair, invalidMpi}},
        {"no 0x", "1x" + digits, "BS_ERROR", {invalidMpi}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.text.empty()) {
            writeFile(file, head);
            ASSERT_EQ(truncate(file.c_str(), static_cast<off_t>(head.size() + c_sparseText)), 0);
            appendFile(file, lengthField(c_sparseText) + ":ZOL");
        } else {
            writeFile(file, blockAfter(head, row.text));
        }
        const long before = peakKiB();
        DaemonListener daemon;
        clearLog();
        StderrCapture capture;
        EXPECT_EQ(verifyFileWihtoutKey(file.c_str(), "loader"), 0);
        const Lines lines = loggedLines();
        ASSERT_GE(lines.size(), row.lines.size());
        EXPECT_EQ(Lines(lines.end() - static_cast<long>(row.lines.size()), lines.end()), row.lines);
        EXPECT_EQ(daemon.drain(), Lines{refusalFrame(file, row.result)});
        const bool error = std::string(row.result) == "BS_ERROR";
        EXPECT_EQ(capture.finish(),
                  error ? "[zol][loader] : error during signature check [ file_path : " + file + " ]\n" : "");
        // The library itself takes some 40 KiB; the rest of the bound leaves room for
        // what an emulator of another processor translates on the way.
        EXPECT_LT(peakKiB() - before, 32768) << "the text was read into memory";
        std::filesystem::remove(file);
    }
}

// Whoever takes the daemon's name first: the default build hands it the
// report; the hardened build hands reports to the daemon's user alone and
// waits for a listener no longer than its bound.
TEST(ObjectBound, ListenerThatTookTheDaemonsName)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to listen as another user";
    }
    const UserArea area;
    const std::string script = area.file("run.sh");
    writeFile(script, c_inside);
    const std::string refused = errorLine("bs_context.cpp", "SendRequestNotification",
                                          "Report not delivered: the listener is not the daemon's user 0;");
    // A listener that never accepts and whose queue is full: only the hardened
    // build returns, as the described channel waits for as long as the listener wants.
    for (const bool queueFull : {false, true}) {
        SCOPED_TRACE(queueFull ? "never accepts, queue full" : "accepts and reads");
        if (queueFull && !c_failClosed) {
            continue;
        }
        // The squatter listens as user 65534 (nobody): a listener's peers see
        // the credentials it listened with.
        ASSERT_EQ(seteuid(65534), 0);
        const UniqueFd squatter = abstractSocket("SfDaemon/UserMsg", true);
        const bool full = queueFull && listen(squatter.get(), 0) == 0;
        const UniqueFd filler = full ? abstractSocket("SfDaemon/UserMsg", false) : UniqueFd();
        ASSERT_EQ(seteuid(0), 0);
        ASSERT_TRUE(squatter && (filler || !queueFull));
        clearLog();
        EXPECT_EQ(verifyFileWihtoutKey(script.c_str(), "loader"), 0);
        std::string bytes;  // what every connection queued on the squatter holds
        for (UniqueFd connection; connection.reset(accept4(squatter.get(), nullptr, nullptr, 0)), connection;) {
            char buffer[65536];
            bytes.append(buffer, std::max<ssize_t>(recv(connection.get(), buffer, sizeof(buffer), MSG_DONTWAIT), 0));
        }
        EXPECT_EQ(bytes, c_failClosed ? "" : refusalFrame(script));
        const Lines lines = loggedLines();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), refused), c_failClosed && !queueFull ? 1 : 0);
    }
}

// The path race. FILE is AREA/d/run.sh, an unsigned script in /tmp; AREA/link
// is a symbolic link to a directory outside the areas that holds a run.sh of
// its own. An attacker exchanges the names d and link: guided (as soon as
// FILE is opened, and back once it is quiet) or without pause. A decision by
// name (the open file's content, the area from FILE's name) then lets the
// unsigned bytes from /tmp run as "outside the areas"; a decision on the open
// file never does. The guided attacker wins against the decision by name
// whenever it is quicker than the caller's own work between opening and
// deciding, here one millisecond.
TEST(ObjectBound, PathRace)
{
    const UserArea user;
    const TempDir outside("/var/tmp");
    const std::string area = user.path, file = area + "/d/run.sh";
    writeFile(file, c_inside);
    writeFile(outside.file("run.sh"), c_outside);
    ASSERT_EQ(chmod(file.c_str(), 0755), 0);
    ASSERT_EQ(chmod(outside.file("run.sh").c_str(), 0755), 0);
    ASSERT_EQ(symlink(std::filesystem::canonical(outside.path()).c_str(), (area + "/link").c_str()), 0);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);

    // A decision on FILE opened a moment before: whether it let the unsigned
    // bytes from /tmp run, read again through the descriptor to run (*run).
    const auto opened = [&](const std::function<int(int fd, int* run)>& decide) {
        return [&, decide] {
            const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
            usleep(1000);
            int run = -1;
            const bool allowed = decide(fd.get(), &run) == 1;
            const UniqueFd ran(run);
            return allowed && ran && readFile("/proc/self/fd/" + std::to_string(ran.get())) == c_inside;
        };
    };
    const auto exec = [&] {
        std::string out;
        kzol("emulate " + shq(user.device.path()) + " -- " + shq(KZOL_TOOL) + " exec " + shq(file), &out);
        return out == "INSIDE-UNSIGNED\n";
    };
    struct Decider {
        const char* name;
        std::function<bool()> bypassed;
        bool mayLose;
    };
    const auto byName = [&](int fd, int* run) {
        *run = dup(fd);  // what it read is what runs
        return verifyFileDescriptor(fd, file.c_str(), "loader");
    };
    const auto toRun = [](int fd, int* run) { return verifyOpenFileToRun(fd, "loader", 0, run); };
    const Decider deciders[] = {
        {"by name (an open copy, verifyFileDescriptor with FILE)", opened(byName), true},
        {"verifyOpenFileToRun", opened(toRun), false},
        {"kzol exec", exec, false},
    };
    constexpr int c_attempts = 100;
    for (const Decider& decider : deciders) {
        SCOPED_TRACE(decider.name);
        int guided = 0, periodic = 0;
        {
            GuidedSwapper attacker(file, area + "/d", area + "/link");
            ASSERT_TRUE(attacker.running());
            for (int attempt = 0; attempt < c_attempts; ++attempt) {
                guided += decider.bypassed() ? 1 : 0;
                ASSERT_TRUE(attacker.restored()) << "the attacker did not see FILE opened";
            }
        }
        {
            const Swapper attacker(area + "/d", area + "/link");
            for (int attempt = 0; attempt < c_attempts; ++attempt) {
                periodic += decider.bypassed() ? 1 : 0;
            }
        }
        if (std::filesystem::is_symlink(area + "/d")) {
            exchange(area + "/d", area + "/link");
        }
        std::cout << decider.name << ": the unsigned script from /tmp allowed " << guided << " times in " << c_attempts
                  << " guided attempts, " << periodic << " times in " << c_attempts << " periodic ones\n";
        if (decider.mayLose) {
            EXPECT_GE(guided, 1) << "the attacker does not work on this machine";
        } else {
            EXPECT_EQ(guided + periodic, 0);
        }
    }
}

// An interpreter's question about a script it opened: the kernel's answer
// (where it gives one) and the library's decision, both needed.
TEST(ObjectBound, ScriptDescriptor)
{
    const UserArea area;
    const std::string script = area.file("script.sh");
    const UniqueFd shell(open("/bin/sh", O_RDONLY | O_CLOEXEC));
    char* const none[] = {nullptr};
    const bool kernelAnswers = syscall(SYS_execveat, shell.get(), "", none, none, AT_EMPTY_PATH | 0x10000) == 0;
    const std::string signedScript = signedFile(c_inside, "P50", devPrivateKey('5'));
    struct Row {
        const char* name;
        std::string content;
        mode_t mode;
        int answer;
    };
    const Row rows[] = {
        {"signed, executable", signedScript, 0755, 1},
        {"unsigned, executable", c_inside, 0755, 0},
        {"signed, not executable: the kernel refuses", signedScript, 0644, kernelAnswers ? 0 : 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(script, row.content);
        ASSERT_EQ(chmod(script.c_str(), row.mode), 0);
        const UniqueFd fd(open(script.c_str(), O_RDONLY | O_CLOEXEC));
        DaemonListener daemon;
        EXPECT_EQ(verifyScriptDescriptor(fd.get(), "loader"), row.answer);
        EXPECT_EQ(daemon.drain(), row.content == c_inside ? Lines{refusalFrame(script)} : Lines{});
    }
}
