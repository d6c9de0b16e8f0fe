// Logging of the library.
//
// Platform-log messages go through __dlog_print under the tag "kzoluser",
// each prefixed "<file>: <function>(<line>) > " and coloured by priority:
// errors red, information cyan, warnings yellow, each closed by a reset.
// A handful of low-level lines go to standard error through log() instead.
#pragma once

#include <dlog.h>

// Formats like printf into a zeroed 1024-byte buffer (longer output is cut at
// 1023 characters) and writes it with a line feed to standard error.
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

namespace kzol_log {

constexpr const char* baseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

}  // namespace kzol_log

// The log lines need the call site's __FILE__, __func__ and __LINE__ and a
// literal format, which only macros provide.
// NOLINTBEGIN(cppcoreguidelines-macro-usage)
#define KZOL_LOG_TAG "kzoluser"

// The source file's base name, worked out at compile time; a class that
// spans files names its unit by defining KZOL_LOG_UNIT before any include.
#ifdef KZOL_LOG_UNIT
#define KZOL_FILE_NAME KZOL_LOG_UNIT
#else
#define KZOL_FILE_NAME                                                                                                 \
    ([]() {                                                                                                            \
        constexpr const char* kzolBase = ::kzol_log::baseName(__FILE__);                                               \
        return kzolBase;                                                                                               \
    }())
#endif

// `function` is the name shown in the prefix: __func__, or the operation on
// whose behalf a helper logs.
#define KZOL_DLOG_IN(function, prio, colour, fmt, ...)                                                                 \
    __dlog_print(LOG_ID_MAIN, (prio), KZOL_LOG_TAG, "%s: %s(%d) > " colour fmt "\033[0m", KZOL_FILE_NAME, (function),  \
                 __LINE__, ##__VA_ARGS__)

#define KZOL_DLOG(prio, colour, fmt, ...) KZOL_DLOG_IN(__func__, prio, colour, fmt, ##__VA_ARGS__)

#define KZOL_LOGE_IN(function, fmt, ...) KZOL_DLOG_IN(function, DLOG_ERROR, "\033[31m", fmt, ##__VA_ARGS__)
#define KZOL_LOGI_IN(function, fmt, ...) KZOL_DLOG_IN(function, DLOG_INFO, "\033[36m", fmt, ##__VA_ARGS__)
#define KZOL_LOGW_IN(function, fmt, ...) KZOL_DLOG_IN(function, DLOG_WARN, "\033[33m", fmt, ##__VA_ARGS__)

#define KZOL_LOGE(fmt, ...) KZOL_DLOG(DLOG_ERROR, "\033[31m", fmt, ##__VA_ARGS__)
#define KZOL_LOGW(fmt, ...) KZOL_DLOG(DLOG_WARN, "\033[33m", fmt, ##__VA_ARGS__)
#define KZOL_LOGI(fmt, ...) KZOL_DLOG(DLOG_INFO, "\033[36m", fmt, ##__VA_ARGS__)
// NOLINTEND(cppcoreguidelines-macro-usage)
