// Failure-injection driver: runs one scenario of the shipped library with the
// fault shim preloaded. It first counts the fallible calls the scenario makes,
// then, each in a process of its own, fails the k-th one for every k (or a
// sample, see below), and runs it once more with every send cut to three
// bytes. For each run it checks: the process neither crashed nor aborted; it
// holds no more descriptors after the call than before; a file that must be
// refused was not answered 1 (in the default build the two documented
// fail-open steps are counted apart); the daemon received the same frames
// as without faults whenever the call delivered anything.
//
//   inject_driver NAME check|report|verify PATH REFUSE(0|1)
//
// Prints one line of figures and exits 0 when no check failed.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "bs_context.h"
#include "descriptors.h"
#include "handles.h"
#include "kZOLUser.h"

namespace {

using ArmFn = void (*)(long, int);
using DisarmFn = long (*)();
using SiteFn = const char* (*)();

ArmFn g_arm;
DisarmFn g_disarm;
SiteFn g_site;

// Above this many calls only every step-th one is failed beyond the first
// c_sampleHead, so that a scenario stays within seconds.
constexpr long c_fullSweep = 600;
constexpr long c_sampleHead = 300;

UniqueFd daemonSocket()
{
    sockaddr_un address{AF_UNIX, {}};
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    UniqueFd s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!s || bind(s.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(s.get(), 64) != 0) {
        return UniqueFd();
    }
    return s;
}

// Every frame queued on the daemon's socket, concatenated.
std::string drain(const UniqueFd& daemon)
{
    std::string bytes;
    for (UniqueFd c; c.reset(accept4(daemon.get(), nullptr, nullptr, SOCK_CLOEXEC)), c;) {
        char buffer[4096];
        for (ssize_t n; (n = recv(c.get(), buffer, sizeof(buffer), 0)) > 0;) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        }
        bytes += '|';
    }
    return bytes;
}

int callOnce(const std::string& mode, const std::string& path)
{
    if (mode == "check") {
        return verifyFileWihtoutKey(path.c_str(), "inject");
    }
    if (mode == "report") {
        return SendSecurityReport("inject", "SCRIPT", path.c_str(), "injected", 3);
    }
    // The classes are C++: exhausted memory reaches their caller as
    // std::bad_alloc, which a C++ caller takes as a refusal.
    try {
        BSContext context;
        return context.verifyFile(path, "inject") == BS_SIGNATURE_CORRECT ? 1 : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

struct RunResult {
    bool crashed = false;
    bool leaked = false;
    int answer = -1;
    long calls = 0;
    std::string site;
    std::string frames;
};

// One run in a child process: fail call `failAt` (0: none).
RunResult runChild(const std::string& mode, const std::string& path, long failAt, bool shortSend)
{
    int ends[2];
    if (pipe(ends) != 0) {
        std::abort();
    }
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        // The library's log lines go to standard error: quiet them.
        const UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        (void)dup2(null.get(), STDERR_FILENO);
        const UniqueFd daemon = daemonSocket();
        const int before = openDescriptors();
        g_arm(failAt, shortSend ? 1 : 0);
        const int answer = callOnce(mode, path);
        const long calls = g_disarm();
        const int after = openDescriptors();
        const std::string frames = daemon ? drain(daemon) : std::string("no daemon");
        std::string out = std::to_string(answer) + "\n" + std::to_string(after > before ? 1 : 0) + "\n" +
                          std::to_string(calls) + "\n" + g_site() + "\n" + frames;
        for (std::size_t done = 0; done < out.size();) {
            const ssize_t n = write(writeEnd.get(), out.data() + done, out.size() - done);
            if (n <= 0) {
                _exit(3);
            }
            done += static_cast<std::size_t>(n);
        }
        _exit(0);
    }
    writeEnd.reset();
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(readEnd.get(), buffer, sizeof(buffer))) > 0;) {
        out.append(buffer, static_cast<std::size_t>(n));
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    RunResult result;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        result.crashed = true;
        return result;
    }
    std::size_t at = 0;
    const auto field = [&out, &at]() {
        const std::size_t end = out.find('\n', at);
        std::string value = out.substr(at, end == std::string::npos ? std::string::npos : end - at);
        at = end == std::string::npos ? out.size() : end + 1;
        return value;
    };
    result.answer = std::atoi(field().c_str());
    result.leaked = field() == "1";
    result.calls = std::atol(field().c_str());
    result.site = field();
    result.frames = out.substr(at);
    return result;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "usage: inject_driver NAME check|report|verify PATH REFUSE\n");
        return 2;
    }
    const std::string name = argv[1], mode = argv[2], path = argv[3];
    const bool mustRefuse = std::string(argv[4]) == "1";
    g_arm = reinterpret_cast<ArmFn>(dlsym(RTLD_DEFAULT, "kzol_inject_arm"));
    g_disarm = reinterpret_cast<DisarmFn>(dlsym(RTLD_DEFAULT, "kzol_inject_disarm"));
    g_site = reinterpret_cast<SiteFn>(dlsym(RTLD_DEFAULT, "kzol_inject_site"));
    if (g_arm == nullptr || g_disarm == nullptr || g_site == nullptr) {
        std::fprintf(stderr, "inject_driver: the fault shim is not preloaded\n");
        return 2;
    }
    // The daemon's name is private to a network namespace of our own.
    (void)unshare(CLONE_NEWNET);

    const RunResult baseline = runChild(mode, path, 0, false);
    if (baseline.crashed) {
        std::printf("%s: the run without faults crashed\n", name.c_str());
        return 1;
    }
    const long total = baseline.calls;
    const long step = total <= c_fullSweep ? 1 : (total - c_sampleHead) / (c_fullSweep - c_sampleHead) + 1;
    long runs = 0, crashes = 0, leaks = 0, failOpen = 0, documented = 0, changedFrames = 0;
    const bool failClosed = KZOL_FAIL_CLOSED != 0;
    for (long k = 1; k <= total + 1; k = k < c_sampleHead ? k + 1 : k + step) {
        const bool shortSend = k == total + 1;  // the last run: no failure, every send short
        const RunResult r = runChild(mode, path, shortSend ? 0 : k, shortSend);
        ++runs;
        if (r.crashed) {
            ++crashes;
            std::printf("%s: call %ld (%s) crashed the process\n", name.c_str(), k, r.site.c_str());
            continue;
        }
        if (r.leaked) {
            ++leaks;
            std::printf("%s: call %ld (%s) left a descriptor open\n", name.c_str(), k, r.site.c_str());
        }
        if (mustRefuse && r.answer == 1) {
            const bool documentedStep = r.site.find(" in IsDTV") != std::string::npos ||
                                        r.site.find(" in checkFileIsInRWUser") != std::string::npos;
            if (!failClosed && documentedStep) {
                ++documented;
            } else {
                ++failOpen;
                std::printf("%s: call %ld (%s) let the file run\n", name.c_str(), k, r.site.c_str());
            }
        }
        // A run that delivered its reports delivered them unchanged.
        if (r.answer == baseline.answer && r.frames.size() == baseline.frames.size() && r.frames != baseline.frames) {
            ++changedFrames;
            std::printf("%s: call %ld (%s) changed a report frame\n", name.c_str(), k, r.site.c_str());
        }
        if (shortSend && r.frames != baseline.frames) {
            ++changedFrames;
            std::printf("%s: three-byte sends changed the frames\n", name.c_str());
        }
    }
    std::printf("%s: %ld calls, %ld runs%s, %ld crashes, %ld leaks, %ld fail-open, %ld at documented steps, "
                "%ld changed frames\n",
                name.c_str(), total, runs, step > 1 ? " (sampled)" : "", crashes, leaks, failOpen, documented,
                changedFrames);
    return crashes + leaks + failOpen + changedFrames == 0 ? 0 : 1;
}
