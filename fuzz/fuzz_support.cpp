// The fuzz targets stand in for the platform log with a silent one: the
// library's messages are not what is being looked at, and printing them would
// slow every run down.
#include <dlog.h>

extern "C" int __dlog_print(log_id_t, int, const char*, const char*, ...)
{
    return 0;
}
