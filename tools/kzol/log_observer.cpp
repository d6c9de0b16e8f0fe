#include "log_observer.h"

#include <dlfcn.h>
#include <dlog.h>

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

namespace kzol {

namespace {

std::mutex g_mutex;
std::function<void(int, const std::string&)> g_observer;
std::atomic<bool> g_shown{false};
std::atomic<bool> g_colour{false};

// The formatted text of a printf-style call.
std::string formatted(const char* fmt, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int length = fmt != nullptr ? std::vsnprintf(nullptr, 0, fmt, copy) : -1;
    va_end(copy);
    if (length < 0) {
        return std::string();
    }
    std::vector<char> text(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), fmt, args);
    return std::string(text.data(), static_cast<std::size_t>(length));
}

}  // namespace

void setLibraryLogShown(bool shown, bool colour)
{
    g_shown = shown;
    g_colour = colour;
}

bool libraryLogShown()
{
    return g_shown;
}

bool colourWanted(int fd)
{
    const char* noColour = std::getenv("NO_COLOR");
    return ::isatty(fd) == 1 && (noColour == nullptr || *noColour == '\0');
}

std::string withoutColour(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\033' && i + 1 < text.size() && text[i + 1] == '[') {
            std::size_t end = i + 2;
            while (end < text.size() && ((text[end] >= '0' && text[end] <= '9') || text[end] == ';')) {
                ++end;
            }
            if (end < text.size() && text[end] == 'm') {
                i = end;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

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
    const std::string text = kzol::formatted(fmt, args);
    va_end(args);
    {
        const std::lock_guard<std::mutex> lock(kzol::g_mutex);
        if (kzol::g_observer) {
            kzol::g_observer(prio, text);
        }
    }
    if (!kzol::g_shown) {
        return static_cast<int>(text.size());
    }
    // On to the platform's log, as the line would have gone without kzol.
    using Print = int (*)(log_id_t, int, const char*, const char*, ...);
    static const auto next = reinterpret_cast<Print>(dlsym(RTLD_NEXT, "__dlog_print"));
    const std::string shown = kzol::g_colour ? text : kzol::withoutColour(text);
    return next != nullptr ? next(log_id, prio, tag, "%s", shown.c_str()) : static_cast<int>(text.size());
}

// The library's own standard-error lines: formatted and cut as the library
// does (1023 characters), written only when the library's lines are shown.
void log(const char* format, ...)
{
    constexpr std::size_t c_lineLimit = 1023;
    va_list args;
    va_start(args, format);
    std::string text = kzol::formatted(format, args);
    va_end(args);
    if (!kzol::g_shown) {
        return;
    }
    if (text.size() > c_lineLimit) {
        text.resize(c_lineLimit);
    }
    text = kzol::g_colour ? text : kzol::withoutColour(text);
    std::fprintf(stderr, "%s\n", text.c_str());
}
