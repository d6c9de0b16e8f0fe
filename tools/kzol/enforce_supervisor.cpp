// kzol enforce: the supervisor of the worker process.
#include "enforce_supervisor.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>

#include "common.h"
#include "enforce_loop.h"

namespace kzol {

namespace {

// An event unanswered this long means a stalled worker.
constexpr long long c_stallMs = 10000;
constexpr long c_pollNs = 100 * 1000 * 1000;
constexpr unsigned int c_restartPauseUs = 100 * 1000;
constexpr rlim_t c_maxSweptFd = 1U << 16U;

// The progress record, in memory shared with the worker processes.
class SharedProgress {
public:
    SharedProgress()
        : m_memory(::mmap(nullptr, sizeof(EnforceProgress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
    {
        if (m_memory != MAP_FAILED) {
            m_progress = new (m_memory) EnforceProgress();
        }
    }
    ~SharedProgress()
    {
        if (m_progress != nullptr) {
            m_progress->~EnforceProgress();
            (void)::munmap(m_memory, sizeof(EnforceProgress));
        }
    }
    SharedProgress(const SharedProgress&) = delete;
    SharedProgress& operator=(const SharedProgress&) = delete;
    EnforceProgress* get() const { return m_progress; }

private:
    void* m_memory;
    EnforceProgress* m_progress = nullptr;
};

// Denies every event that a worker read and did not answer: every descriptor
// number the worker could have held.
void denyOrphans(int group, EnforceProgress& progress)
{
    rlimit limit{};
    rlim_t highest = 1024;
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        highest = limit.rlim_cur < c_maxSweptFd ? limit.rlim_cur : c_maxSweptFd;
    }
    for (rlim_t fd = 0; fd < highest; ++fd) {
        (void)answerEvent(group, static_cast<int>(fd), false);
    }
    progress.read.store(0);
    progress.answered.store(0);
}

pid_t startWorker(int group, unsigned int workers, EnforceProgress& progress)
{
    const pid_t supervisor = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The worker ends with its supervisor: it never answers alone.
        if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != supervisor) {
            ::_exit(c_exitError);
        }
        sigset_t none;
        sigemptyset(&none);
        (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::_exit(runEventLoop(group, workers, progress));
    }
    if (pid < 0) {
        fail("enforce: cannot start a worker: " + errnoText(errno));
    }
    return pid;
}

std::string endText(int status)
{
    return WIFSIGNALED(status) ? "was killed by signal " + std::to_string(WTERMSIG(status))
                               : "ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

int superviseWorkers(int group, unsigned int workers, const std::function<void()>& started)
{
    const SharedProgress shared;
    if (shared.get() == nullptr) {
        return fail("enforce: cannot share memory with the worker: " + errnoText(errno));
    }
    EnforceProgress& progress = *shared.get();
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    sigaddset(&wanted, SIGCHLD);
    (void)::sigprocmask(SIG_BLOCK, &wanted, nullptr);

    pid_t worker = startWorker(group, workers, progress);
    started();
    for (;;) {
        const timespec pause{0, c_pollNs};
        const int signal = ::sigtimedwait(&wanted, nullptr, &pause);
        if (signal == SIGTERM || signal == SIGINT) {
            break;
        }
        int status = 0;
        if (worker > 0 && ::waitpid(worker, &status, WNOHANG) == worker) {
            fail("enforce: the worker " + endText(status) + "; its pending executions are denied, a new one starts");
            worker = -1;
            denyOrphans(group, progress);
            ::usleep(c_restartPauseUs);
        }
        if (worker < 0) {
            worker = startWorker(group, workers, progress);
            continue;
        }
        if (progress.read.load() > progress.answered.load() && monotonicMs() - progress.sinceMs.load() > c_stallMs) {
            fail("enforce: the worker left an execution unanswered for " + std::to_string(c_stallMs / 1000) +
                 " s; it is stopped");
            (void)::kill(worker, SIGKILL);
        }
    }
    if (worker > 0) {
        (void)::kill(worker, SIGTERM);
        int status = 0;
        while (::waitpid(worker, &status, 0) < 0 && errno == EINTR) {}
    }
    denyOrphans(group, progress);
    return c_exitSuccess;
}

}  // namespace kzol
