/* Host stand-in of the platform log: one line per message on standard error,
 * "<P>/<tag>(<pid>): <message>", written with a single write() so that lines
 * of concurrent threads never interleave. The messages' colour sequences
 * (ESC [ ... m) stay only when standard error is a terminal and NO_COLOR is
 * unset or empty. */
#include <dlog.h>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char priority_letter(int prio)
{
    switch (prio) {
    case 2: return 'V';
    case 3: return 'D';
    case DLOG_INFO: return 'I';
    case DLOG_WARN: return 'W';
    case DLOG_ERROR: return 'E';
    case 7: return 'F';
    default: return '?';
    }
}

static int write_all(int fd, const char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        p += w;
        n -= (size_t)w;
    }
    return 0;
}

static int colour_wanted(void)
{
    const char *no_colour = getenv("NO_COLOR");
    return isatty(STDERR_FILENO) == 1 && (no_colour == NULL || *no_colour == '\0');
}

/* Removes every ESC [ <parameters> m sequence of line[0..n); answers the new length. */
static size_t strip_colour(char *line, size_t n)
{
    size_t out = 0;
    for (size_t i = 0; i < n; ++i) {
        if (line[i] == '\033' && i + 1 < n && line[i + 1] == '[') {
            size_t end = i + 2;
            while (end < n && ((line[end] >= '0' && line[end] <= '9') || line[end] == ';'))
                ++end;
            if (end < n && line[end] == 'm') {
                i = end;
                continue;
            }
        }
        line[out++] = line[i];
    }
    return out;
}

int __dlog_print(log_id_t log_id, int prio, const char *tag, const char *fmt, ...)
{
    (void)log_id;
    if (fmt == NULL)
        return -1;

    char head[160];
    int hn = snprintf(head, sizeof head, "%c/%s(%ld): ", priority_letter(prio), tag ? tag : "", (long)getpid());
    if (hn < 0)
        return -1;
    if ((size_t)hn >= sizeof head)
        hn = (int)sizeof head - 1;

    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int mn = vsnprintf(NULL, 0, fmt, ap);
    va_end(ap);
    if (mn < 0) {
        va_end(ap2);
        return -1;
    }

    size_t total = (size_t)hn + (size_t)mn + 1;
    char small[1024];
    char *line = total <= sizeof small ? small : malloc(total);
    if (line == NULL) {
        va_end(ap2);
        return -1;
    }
    memcpy(line, head, (size_t)hn);
    vsnprintf(line + hn, (size_t)mn + 1, fmt, ap2);
    va_end(ap2);
    line[total - 1] = '\n';
    if (!colour_wanted())
        total = strip_colour(line, total);

    int rc = write_all(STDERR_FILENO, line, total) == 0 ? (int)total : -1;
    if (line != small)
        free(line);
    return rc;
}
