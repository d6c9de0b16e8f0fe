// The fuzz targets stand in for the platform log with a silent one: the
// library's messages are not what is being looked at, and printing them would
// slow every run down.
#include "fuzz_support.h"

#include <dlog.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int __dlog_print(log_id_t, int, const char*, const char*, ...)
{
    return 0;
}

std::string fileWith(const uint8_t* data, size_t size)
{
    static const int fd = memfd_create("kzol-fuzz", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
        return {};
    }
    return path;
}
