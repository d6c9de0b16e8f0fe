// kzol_enforce_bench: the latency that kzol enforce adds to an execution,
// against an allow-only fanotify responder measured in the same run.
//
// An execution is measured by its permission event alone: execveat with
// AT_EXECVE_CHECK on an open descriptor raises the same FAN_OPEN_EXEC_PERM as
// execve and waits for the same answer, without starting a program. Each
// figure is a median; "added" is the median with a responder minus the median
// with no mark at all.
//   - cache hit: the same signed 4 KiB script again and again;
//   - miss: the script's change time moved before each check (outside the
//     timed part), against the library's own verification of that file as a
//     caller that asks once pays it (the key parsed in the call); the daemon
//     parses its keys once (KZOL_KEEP_KEYS), and that cost is printed too;
//   - allow-only: a thread of this program that answers FAN_ALLOW at once.
// Targets: hit <= 1.5 x allow-only; miss <= verification + 50 us.
//
// Runs as root, in a private mount namespace on a private tmpfs under /tmp;
// where fanotify or AT_EXECVE_CHECK is refused it says so and exits 0.
// Usage: kzol_enforce_bench [ITERATIONS]
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "kZOLUser.h"

#ifndef AT_EXECVE_CHECK
#define AT_EXECVE_CHECK 0x10000  // NOLINT(cppcoreguidelines-macro-usage): Linux 6.14, absent from older headers
#endif

// The library's log lines are not part of what is measured.
extern "C" int __dlog_print(int, int, const char*, const char*, ...)  // NOLINT(bugprone-reserved-identifier)
{
    return 0;
}

namespace {

using Clock = std::chrono::steady_clock;

int fail(const std::string& message)
{
    std::cerr << "kzol_enforce_bench: " << message << std::endl;
    return 1;
}

double medianUs(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples.empty() ? 0.0 : samples[samples.size() / 2];
}

// The median time of `iterations` calls of `timed`, `prepare` run untimed before each.
double measure(int iterations, const std::function<void()>& prepare, const std::function<bool()>& timed)
{
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(iterations));
    for (int i = 0; i < iterations; ++i) {
        prepare();
        const auto start = Clock::now();
        if (!timed()) {
            return -1.0;
        }
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return medianUs(samples);
}

bool executionCheck(int fd)
{
    char* const argv[] = {const_cast<char*>("script"), nullptr};
    char* const envp[] = {nullptr};
    return syscall(SYS_execveat, fd, "", argv, envp, AT_EMPTY_PATH | AT_EXECVE_CHECK) == 0;
}

// A responder that allows everything, on a thread of its own. It stops on a
// byte through its own pipe, never on an event: an event meant to wake it could
// come after it had already seen the request and left, and wait forever.
class AllowOnly {
public:
    explicit AllowOnly(const std::string& area)
        : m_group(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC))
    {
        m_ok =
            m_group >= 0 && pipe2(m_stop, O_CLOEXEC) == 0 &&
            fanotify_mark(m_group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_OPEN_EXEC_PERM, AT_FDCWD, area.c_str()) == 0;
        m_thread = std::thread([this] { serve(); });
    }
    ~AllowOnly()
    {
        if (m_stop[1] >= 0) {
            (void)!write(m_stop[1], "", 1);
        }
        m_thread.join();
        for (const int fd : {m_group, m_stop[0], m_stop[1]}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
    AllowOnly(const AllowOnly&) = delete;
    AllowOnly& operator=(const AllowOnly&) = delete;
    bool ok() const { return m_ok; }

private:
    void serve()
    {
        alignas(fanotify_event_metadata) char buffer[4096];
        pollfd waiting[2] = {{m_group, POLLIN, 0}, {m_stop[0], POLLIN, 0}};
        while (m_ok && poll(waiting, 2, -1) >= 0 && waiting[1].revents == 0) {
            if ((waiting[0].revents & POLLIN) == 0) {
                continue;
            }
            ssize_t left = read(m_group, buffer, sizeof(buffer));
            for (auto* e = reinterpret_cast<fanotify_event_metadata*>(buffer); FAN_EVENT_OK(e, left);
                 e = FAN_EVENT_NEXT(e, left)) {
                const fanotify_response response{e->fd, FAN_ALLOW};
                (void)!write(m_group, &response, sizeof(response));
                close(e->fd);
            }
        }
    }
    int m_group;
    int m_stop[2] = {-1, -1};
    bool m_ok = false;
    std::thread m_thread;
};

// kzol emulate PROFILE -- kzol enforce --mark AREA, until destroyed.
class Daemon {
public:
    Daemon(const std::string& profile, const std::string& area)
    {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], 1);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 2);
            execl(KZOL_TOOL, "kzol", "emulate", profile.c_str(), "--", KZOL_TOOL, "enforce", "--mark", area.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        std::string line;
        char c = 0;
        pollfd waiting{out[0], POLLIN, 0};
        while (c != '\n' && poll(&waiting, 1, 10000) == 1 && read(out[0], &c, 1) == 1) {
            line += c;
        }
        close(out[0]);
        m_ready = line == "kzol enforce: ready\n";
    }
    ~Daemon()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    bool ready() const { return m_ready; }

private:
    pid_t m_pid = -1;
    bool m_ready = false;
};

// A 4 KiB script, before signing.
std::string plainScript()
{
    std::string content = "#!/bin/sh\n";
    content.resize(4096, '#');
    content.back() = '\n';
    return content;
}

int runCommand(const std::string& command)
{
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv)
{
    const int iterations = argc > 1 ? std::max(50, std::atoi(argv[1])) : 2000;
    const int probe = fanotify_init(FAN_CLASS_CONTENT, O_RDONLY);
    if (probe < 0) {
        std::cout << "kzol_enforce_bench: skipped, fanotify refused here: " << std::strerror(errno) << "\n";
        return 0;
    }
    close(probe);
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return fail(std::string("no private mount namespace: ") + std::strerror(errno));
    }
    char name[] = "/tmp/kzol-enforce-bench-XXXXXX";
    if (mkdtemp(name) == nullptr || mount("tmpfs", name, "tmpfs", 0, "size=16m,mode=0755") != 0) {
        return fail(std::string("no private tmpfs: ") + std::strerror(errno));
    }
    const std::string area = name, profile = area + "/profile", script = area + "/script.sh";
    {
        std::ofstream(area + "/plain.sh") << plainScript();
    }
    const std::string key = std::string(KZOL_SOURCE_DIR) + "/keys/dev/private_key_5.pem";
    if (runCommand(std::string(KZOL_TOOL) + " profile init " + profile + " --tv >/dev/null") != 0 ||
        runCommand(std::string(KZOL_TOOL) + " sign --key " + key + " --key-id 5 -o " + script + " " + area +
                   "/plain.sh >/dev/null 2>&1") != 0 ||
        chmod(script.c_str(), 0755) != 0) {
        return fail("cannot make the profile and the signed script with " KZOL_TOOL);
    }
    const int fd = open(script.c_str(), O_RDONLY | O_CLOEXEC);
    if (!executionCheck(fd)) {
        std::cout << "kzol_enforce_bench: skipped, no AT_EXECVE_CHECK here: " << std::strerror(errno) << "\n";
        return 0;
    }
    const auto nothing = [] {};
    const auto check = [fd] { return executionCheck(fd); };
    const auto moveChangeTime = [&script] { (void)chmod(script.c_str(), 0755); };

    // Rounds of: no mark, the allow-only responder, kzol enforce (hits, then
    // misses alternating with the library's own decision, the very call the
    // daemon makes, in this process on the same device). Each figure is the
    // median over the rounds of the round's medians, so that every figure saw
    // the machine's load of the same moments.
    constexpr int c_rounds = 5;
    const int perRound = std::max(10, iterations / c_rounds);
    std::vector<double> unmarkedRounds, allowRounds, hitRounds, missRounds, verificationRounds, keptRounds;
    for (int round = 0; round < c_rounds; ++round) {
        unmarkedRounds.push_back(measure(perRound, nothing, check));
        {
            const AllowOnly responder(area);
            allowRounds.push_back(responder.ok() ? measure(perRound, nothing, check) : -1.0);
        }
        const Daemon daemon(profile, area);
        if (!daemon.ready()) {
            return fail("kzol enforce did not start");
        }
        hitRounds.push_back(measure(perRound, nothing, check));
        std::vector<double> misses, verifications, kept;
        const auto decideWith = [fd](int flags) {
            return [fd, flags] {
                kzol_decision decision{};
                return verifyOpenFileForProcess(fd, static_cast<int>(getpid()), "bench", flags, &decision) == 1;
            };
        };
        for (int i = 0; i < perRound / 4; ++i) {
            misses.push_back(measure(1, moveChangeTime, check));
            setenv("KZOL_PROFILE", profile.c_str(), 1);
            verifications.push_back(measure(1, nothing, decideWith(KZOL_REPORT_LATER)));
            kept.push_back(measure(1, nothing, decideWith(KZOL_REPORT_LATER | KZOL_KEEP_KEYS)));
            unsetenv("KZOL_PROFILE");
        }
        for (auto [measured, rounds] : {std::pair{&misses, &missRounds}, std::pair{&verifications, &verificationRounds},
                                        std::pair{&kept, &keptRounds}}) {
            rounds->push_back(*std::min_element(measured->begin(), measured->end()) < 0 ? -1.0 : medianUs(*measured));
        }
    }
    for (const auto* rounds :
         {&unmarkedRounds, &allowRounds, &hitRounds, &missRounds, &verificationRounds, &keptRounds}) {
        if (*std::min_element(rounds->begin(), rounds->end()) < 0) {
            return fail("a measured check was refused");
        }
    }
    const double unmarked = medianUs(unmarkedRounds), allowOnly = medianUs(allowRounds), hit = medianUs(hitRounds),
                 miss = medianUs(missRounds), verification = medianUs(verificationRounds),
                 keptKeys = medianUs(keptRounds);
    const double allowAdded = allowOnly - unmarked, hitAdded = hit - unmarked, missAdded = miss - unmarked;
    std::printf("execution check, no mark:            %8.1f us\n", unmarked);
    std::printf("allow-only responder, added:         %8.1f us\n", allowAdded);
    std::printf("kzol enforce, cache hit, added:      %8.1f us  ratio to allow-only %.2f (target <= 1.50)\n", hitAdded,
                hitAdded / std::max(allowAdded, 0.1));
    std::printf("library verification, 4 KiB script: %8.1f us\n", verification);
    std::printf("kzol enforce, miss, added:           %8.1f us  over verification %+.1f us (target <= +50)\n",
                missAdded, missAdded - verification);
    std::printf("library verification, keys kept:     %8.1f us  (the daemon's own decision; it parses the keys once)\n",
                keptKeys);
    std::printf("kzol enforce, miss, added:           %8.1f us  over the kept-key verification %+.1f us (for "
                "comparison: the allow-only responder's round trip included)\n",
                missAdded, missAdded - keptKeys);
    umount2(name, MNT_DETACH);
    rmdir(name);
    return 0;
}
