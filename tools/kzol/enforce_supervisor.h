// kzol enforce: the supervisor. It holds the fanotify group for the whole run
// and runs the event loop in a worker process of its own. When the worker
// dies, or stalls with an event unanswered, the supervisor answers every
// event the worker had read and left pending with a deny (the kernel finds an
// event by its descriptor number, which the supervisor need not hold), then
// starts a new worker: no worker failure lets an execution through. Events
// not yet read wait in the group's queue for the next worker.
#pragma once

#include <functional>

namespace kzol {

// Runs until SIGTERM or SIGINT, which the caller has blocked; calls `started`
// once the first worker runs; answers the exit status. Events left pending at
// the end are denied.
int superviseWorkers(int group, unsigned int workers, const std::function<void()>& started);

}  // namespace kzol
