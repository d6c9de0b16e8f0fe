// The library's platform-log lines, seen by kzol on their way to the platform
// log: kzol defines __dlog_print itself, hands every line on unchanged to the
// platform's log, and lets a command watch them.
#pragma once

#include <functional>
#include <string>

namespace kzol {

// Calls `observer` with each formatted message while it is installed.
class LogObserver {
public:
    explicit LogObserver(std::function<void(int priority, const std::string& message)> observer);
    ~LogObserver();
    LogObserver(const LogObserver&) = delete;
    LogObserver& operator=(const LogObserver&) = delete;
};

}  // namespace kzol
