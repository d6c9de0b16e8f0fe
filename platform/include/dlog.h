/* Platform log service, as the library sees it. */
#ifndef KZOL_PLATFORM_DLOG_H
#define KZOL_PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { LOG_ID_MAIN = 0 } log_id_t;

enum { DLOG_INFO = 4, DLOG_WARN = 5, DLOG_ERROR = 6 };

/* Writes one message to the log buffer `log_id` with a priority and a tag.
 * Answers the number of bytes written, or a negative value on failure. */
int __dlog_print(log_id_t log_id, int prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
