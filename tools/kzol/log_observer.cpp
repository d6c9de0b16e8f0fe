#include "log_observer.h"

#include <dlfcn.h>
#include <dlog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>
#include <vector>

namespace kzol {

namespace {

std::mutex g_mutex;
std::function<void(int, const std::string&)> g_observer;

}  // namespace

LogObserver::LogObserver(std::function<void(int, const std::string&)> observer)
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_observer = std::move(observer);
}

LogObserver::~LogObserver()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_observer = nullptr;
}

}  // namespace kzol

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int length = fmt != nullptr ? std::vsnprintf(nullptr, 0, fmt, args) : -1;
    va_end(args);
    if (length < 0) {
        va_end(copy);
        return -1;
    }
    std::vector<char> text(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), fmt, copy);
    va_end(copy);
    {
        const std::lock_guard<std::mutex> lock(kzol::g_mutex);
        if (kzol::g_observer) {
            kzol::g_observer(prio, std::string(text.data(), static_cast<std::size_t>(length)));
        }
    }
    // On to the platform's log, as the line would have gone without kzol.
    using Print = int (*)(log_id_t, int, const char*, const char*, ...);
    static const auto next = reinterpret_cast<Print>(dlsym(RTLD_NEXT, "__dlog_print"));
    return next != nullptr ? next(log_id, prio, tag, "%s", text.data()) : length;
}
