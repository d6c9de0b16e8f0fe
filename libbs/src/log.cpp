#include "log.h"

#include <cstdarg>
#include <cstdio>

void log(const char* format, ...)
{
    if (format == nullptr) {
        return;
    }
    char buffer[1024] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    std::fprintf(stderr, "%s\n", buffer);
}
