#include "log.h"

#include <cstdarg>
#include <cstdio>

void log(const char* format, ...)  // NOLINT(cert-dcl50-cpp): the exported printf-style signature
{
    if (format == nullptr) {
        return;
    }
    char buffer[1024] = {};
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(buffer, sizeof(buffer), format, args);  // longer output is cut on purpose
    va_end(args);
    (void)std::fprintf(stderr, "%s\n", buffer);  // nowhere to report a failed write to stderr
}
