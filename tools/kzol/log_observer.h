// The library's platform-log lines, seen by kzol on their way to the platform
// log: kzol defines __dlog_print itself, lets a command watch every line, and
// hands the lines on to the platform's log only when asked to (-v). The
// library's own standard-error lines (log()) are held back the same way.
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

// Whether the library's lines go on to the platform log and standard error
// (default: not), and whether their colour codes stay in them.
void setLibraryLogShown(bool shown, bool colour);
// Whether they are shown (-v): a command then lets the library itself do the
// work whose lines are wanted.
bool libraryLogShown();

// Colour for a stream: only on a terminal, and never with NO_COLOR set.
bool colourWanted(int fd);

// `text` without its ANSI colour sequences (ESC [ ... m).
std::string withoutColour(const std::string& text);

}  // namespace kzol
