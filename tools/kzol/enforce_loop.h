// kzol enforce: the worker process that answers the kernel's permission
// events. Its main thread reads the events and answers from the verdict cache;
// it never waits on a file: what the cache does not know goes to worker
// threads, which ask the library, answer, and hand refusals to a reporting
// thread, so that logging and reporting happen after the kernel has its answer.
#pragma once

#include <sys/types.h>

#include <atomic>

namespace kzol {

// What the worker process shows its supervisor, in memory they share: the
// events read and answered, and when the oldest unanswered one began to wait
// (milliseconds of CLOCK_MONOTONIC) or the last answer was given.
struct EnforceProgress {
    std::atomic<unsigned long long> read{0};
    std::atomic<unsigned long long> answered{0};
    std::atomic<long long> sinceMs{0};
};

long long monotonicMs();

// The library's decision on the file behind the event's descriptor `fd`, for
// process `pid` that is about to run it.
struct Verdict {
    bool allow = false;
    bool cacheable = false;    // a signature allow: valid for as long as the file's state holds
    bool reportLater = false;  // a refusal the decision has not reported yet
    int result = 0;            // the verification result to report
};
Verdict decideOnEvent(int fd, pid_t pid);
void reportRefusalLater(int fd, int result);

// Runs the worker process on fanotify group `group` with `workers` threads for
// the decisions; returns only when the group cannot be read (the exit status).
int runEventLoop(int group, unsigned int workers, EnforceProgress& progress);

// Answers the permission event of descriptor number `fd` (a number in the
// reader's table; the kernel finds the event by it).
bool answerEvent(int group, int fd, bool allow);

}  // namespace kzol
