// kzol enforce: the worker process (event loop, decisions, reports).
#include "enforce_loop.h"

#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common.h"
#include "enforce_cache.h"
#include "kZOLUser.h"

namespace kzol {

namespace {

const char* const c_caller = "kzol-enforce";
constexpr std::size_t c_cacheEntries = 4096;

// A queue between threads; pop waits until an item comes or the queue closes.
template <typename T> class WorkQueue {
public:
    void push(T item)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_items.push_back(std::move(item));
        }
        m_ready.notify_one();
    }
    bool pop(T& item)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ready.wait(lock, [this] { return m_closed || !m_items.empty(); });
        if (m_items.empty()) {
            return false;
        }
        item = std::move(m_items.front());
        m_items.pop_front();
        return true;
    }
    void close()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_closed = true;
        }
        m_ready.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<T> m_items;
    bool m_closed = false;
};

struct PendingEvent {
    UniqueFd fd;
    pid_t pid = 0;
    FileState state;
    bool known = false;  // state holds the file's state
};

struct Refusal {
    UniqueFd fd;
    int result = 0;
};

class Enforcer {
public:
    Enforcer(int group, EnforceProgress& progress) : m_group(group), m_progress(progress) {}

    // The main thread: read, answer from the cache, hand the rest on.
    int readEvents()
    {
        alignas(fanotify_event_metadata) char buffer[16384];
        const pid_t self = ::getpid(), supervisor = ::getppid();
        for (;;) {
            const ssize_t got = ::read(m_group, buffer, sizeof(buffer));
            if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
                continue;
            }
            if (got <= 0) {
                return fail("enforce: cannot read the kernel's events: " + errnoText(errno));
            }
            const auto* event = reinterpret_cast<const fanotify_event_metadata*>(buffer);
            ssize_t left = got;
            unsigned long long count = 0;
            for (const auto* e = event; FAN_EVENT_OK(e, left); e = FAN_EVENT_NEXT(e, left)) {
                ++count;
            }
            if (m_progress.read.load() == m_progress.answered.load()) {
                m_progress.sinceMs.store(monotonicMs());
            }
            m_progress.read.fetch_add(count);
            left = got;
            for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
                if (event->vers != FANOTIFY_METADATA_VERSION) {
                    return fail("enforce: the kernel's event format is not the one this program reads");
                }
                if (event->fd < 0) {
                    answered();  // an overflow mark: nothing to answer
                    continue;
                }
                PendingEvent pending;
                pending.fd.reset(event->fd);
                pending.pid = event->pid;
                // The daemon never waits on itself.
                if (event->pid == self || event->pid == supervisor) {
                    finish(pending.fd.get(), true);
                    continue;
                }
                struct stat status {};
                if (::fstat(pending.fd.get(), &status) == 0) {
                    pending.state = FileState::of(status);
                    pending.known = true;
                    if (m_cache.allowed(pending.state)) {
                        finish(pending.fd.get(), true);
                        continue;
                    }
                }
                m_decisions.push(std::move(pending));
            }
        }
    }

    void decide()
    {
        PendingEvent pending;
        while (m_decisions.pop(pending)) {
            const Verdict verdict = decideOnEvent(pending.fd.get(), pending.pid);
            finish(pending.fd.get(), verdict.allow);
            if (verdict.allow && verdict.cacheable && pending.known) {
                m_cache.rememberAllowed(pending.state);
            }
            if (!verdict.allow && verdict.reportLater) {
                m_refusals.push(Refusal{std::move(pending.fd), verdict.result});
            }
            pending.fd.reset();
        }
    }

    void report()
    {
        Refusal refusal;
        while (m_refusals.pop(refusal)) {
            reportRefusalLater(refusal.fd.get(), refusal.result);
            refusal.fd.reset();
        }
    }

    void stop()
    {
        m_decisions.close();
        m_refusals.close();
    }

private:
    void finish(int fd, bool allow)
    {
        (void)answerEvent(m_group, fd, allow);
        answered();
    }
    void answered()
    {
        m_progress.answered.fetch_add(1);
        m_progress.sinceMs.store(monotonicMs());
    }

    const int m_group;
    EnforceProgress& m_progress;
    VerdictCache m_cache{c_cacheEntries};
    WorkQueue<PendingEvent> m_decisions;
    WorkQueue<Refusal> m_refusals;
};

}  // namespace

long long monotonicMs()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool answerEvent(int group, int fd, bool allow)
{
    const fanotify_response response{fd, static_cast<__u32>(allow ? FAN_ALLOW : FAN_DENY)};
    for (;;) {
        const ssize_t put = ::write(group, &response, sizeof(response));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        return put == static_cast<ssize_t>(sizeof(response));
    }
}

// The library's object-bound decision: the area from the opened file itself,
// the root and container steps from the executing process, the content from
// the descriptor, with the keys parsed once. A refusal by the signature step
// is reported afterwards, off the path of the answer.
Verdict decideOnEvent(int fd, pid_t pid)
{
    kzol_decision decision{KZOL_STEP_FAILURE, 0};
    Verdict verdict;
    verdict.allow = verifyOpenFileForProcess(fd, pid, c_caller, KZOL_REPORT_LATER | KZOL_KEEP_KEYS, &decision) == 1;
    verdict.cacheable = verdict.allow && decision.step == KZOL_STEP_SIGNATURE;
    verdict.reportLater = !verdict.allow && decision.step == KZOL_STEP_SIGNATURE;
    verdict.result = decision.result;
    return verdict;
}

void reportRefusalLater(int fd, int result)
{
    (void)reportRefusal(fd, c_caller, result);
}

int runEventLoop(int group, unsigned int workers, EnforceProgress& progress)
{
    Enforcer enforcer(group, progress);
    std::vector<std::thread> threads;
    threads.reserve(workers + 1);
    for (unsigned int i = 0; i < workers; ++i) {
        threads.emplace_back([&enforcer] { enforcer.decide(); });
    }
    threads.emplace_back([&enforcer] { enforcer.report(); });
    const int status = enforcer.readEvents();
    enforcer.stop();
    for (std::thread& thread : threads) {
        thread.join();
    }
    return status;
}

}  // namespace kzol
