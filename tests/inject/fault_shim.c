/* Failure injection at the process boundary, preloaded into the injection
 * driver. While armed, every fallible call the process makes through the
 * dynamic linker is counted: allocation (malloc, calloc, realloc, which is
 * also every allocation OpenSSL makes), open, fopen, fdopen, fstat, fcntl,
 * fread, fgets, realpath, socket, connect, send, select, poll. The call whose
 * number is the one asked for fails the way the system would fail it (no
 * memory, no descriptor left, a read error, a refused connection); every
 * other call goes through. A short-send mode makes every send move at most
 * three bytes. The realtime clock is fixed, so that report frames of two runs
 * compare byte for byte.
 *
 * The driver talks to the shim through three functions found with dlsym:
 * kzol_inject_arm(k, shortSend) starts counting (k = 0 fails nothing),
 * kzol_inject_disarm() stops and answers the count, kzol_inject_site() names
 * the call that failed and whether it failed inside the two policy steps that
 * the described policy lets fail open. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);

static long g_count;
static long g_failAt;
static int g_armed;
static int g_shortSend;
static __thread int t_inside;
static char g_site[512];

#define EXPORTED __attribute__((visibility("default")))

EXPORTED void kzol_inject_arm(long failAt, int shortSend)
{
    g_count = 0;
    g_failAt = failAt;
    g_site[0] = '\0';
    g_shortSend = shortSend;
    __atomic_store_n(&g_armed, 1, __ATOMIC_SEQ_CST);
}

EXPORTED long kzol_inject_disarm(void)
{
    __atomic_store_n(&g_armed, 0, __ATOMIC_SEQ_CST);
    return g_count;
}

EXPORTED const char* kzol_inject_site(void)
{
    return g_site;
}

/* Which call the stack shows: the documented fail-open steps are the
 * television test and the area test. */
static void recordSite(const char* name)
{
    void* frames[64];
    const int depth = backtrace(frames, 64);
    const char* step = "";
    for (int i = 0; i < depth && step[0] == '\0'; ++i) {
        Dl_info info;
        if (dladdr(frames[i], &info) == 0 || info.dli_sname == NULL) {
            continue;
        }
        if (strstr(info.dli_sname, "IsDTV") != NULL) {
            step = " in IsDTV";
        } else if (strstr(info.dli_sname, "checkFileIsInRWUser") != NULL) {
            step = " in checkFileIsInRWUser";
        }
    }
    snprintf(g_site, sizeof(g_site), "%s%s", name, step);
}

/* Whether this call is the one to fail; if so it fails the way the system
 * would, with errno `error`. Calls made while the shim itself works
 * (resolving a symbol, taking a backtrace) are not counted. */
static int failingWith(const char* name, int error)
{
    if (!__atomic_load_n(&g_armed, __ATOMIC_SEQ_CST) || t_inside) {
        return 0;
    }
    const long n = __atomic_add_fetch(&g_count, 1, __ATOMIC_SEQ_CST);
    if (n != g_failAt) {
        return 0;
    }
    t_inside = 1;
    recordSite(name);
    t_inside = 0;
    errno = error;
    return 1;
}

static void* next(const char* name)
{
    t_inside = 1;
    void* f = dlsym(RTLD_NEXT, name);
    t_inside = 0;
    if (f == NULL) {
        abort();
    }
    return f;
}
#define NEXT(name)                                                                                                     \
    static __typeof__(&name) real;                                                                                     \
    if (real == NULL)                                                                                                  \
    real = (__typeof__(&name))next(#name)

/* A call that either fails as `label` (errno `error`, answer `failed`) or goes
 * on to the next definition of `name`. */
#define WRAP(type, name, label, error, failed, params, args)                                                           \
    EXPORTED type name params                                                                                          \
    {                                                                                                                  \
        NEXT(name);                                                                                                    \
        return failingWith(label, error) ? (failed) : real args;                                                       \
    }

WRAP(FILE*, fopen, "fopen", EMFILE, NULL, (const char* path, const char* mode), (path, mode))
WRAP(FILE*, fopen64, "fopen", EMFILE, NULL, (const char* path, const char* mode), (path, mode))
WRAP(FILE*, fdopen, "fdopen", ENOMEM, NULL, (int fd, const char* mode), (fd, mode))
WRAP(int, fstat, "fstat", EIO, -1, (int fd, struct stat* status), (fd, status))
WRAP(char*, realpath, "realpath", ENOMEM, NULL, (const char* path, char* resolved), (path, resolved))
WRAP(int, socket, "socket", EMFILE, -1, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, connect, "connect", ECONNREFUSED, -1, (int fd, const struct sockaddr* address, socklen_t length),
     (fd, address, length))
WRAP(int, select, "select", EINTR, -1, (int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* timeout),
     (n, r, w, e, timeout))
WRAP(int, poll, "poll", EINTR, -1, (struct pollfd * fds, nfds_t n, int timeout), (fds, n, timeout))

/* Allocation goes straight to the C library's allocator: looking it up with dlsym would allocate. */
#define WRAP_ALLOC(name, params, args)                                                                                 \
    EXPORTED void* name params                                                                                         \
    {                                                                                                                  \
        return failingWith(#name, ENOMEM) ? NULL : __libc_##name args;                                                 \
    }

WRAP_ALLOC(malloc, (size_t size), (size))
WRAP_ALLOC(calloc, (size_t count, size_t size), (count, size))
WRAP_ALLOC(realloc, (void* p, size_t size), (p, size))

static int openFlagsMode(int flags, va_list args)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(args, int) : 0;
}

/* open and open64, which fail alike. */
#define WRAP_OPEN(name)                                                                                                \
    EXPORTED int name(const char* path, int flags, ...)                                                                \
    {                                                                                                                  \
        va_list args;                                                                                                  \
        va_start(args, flags);                                                                                         \
        const int mode = openFlagsMode(flags, args);                                                                   \
        va_end(args);                                                                                                  \
        NEXT(name);                                                                                                    \
        return failingWith("open", EMFILE) ? -1 : real(path, flags, mode);                                             \
    }

WRAP_OPEN(open)
WRAP_OPEN(open64)

EXPORTED int fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    NEXT(fcntl);
    return failingWith("fcntl", EIO) ? -1 : real(fd, command, argument);
}

/* A failed read leaves the stream's error indicator set, as a real one does. */
static int failingRead(const char* name, FILE* stream)
{
    const int failed = failingWith(name, EIO);
    if (failed) {
        stream->_flags |= _IO_ERR_SEEN;
    }
    return failed;
}

EXPORTED size_t fread(void* buffer, size_t size, size_t count, FILE* stream)
{
    NEXT(fread);
    return failingRead("fread", stream) ? 0 : real(buffer, size, count, stream);
}

EXPORTED char* fgets(char* buffer, int size, FILE* stream)
{
    NEXT(fgets);
    return failingRead("fgets", stream) ? NULL : real(buffer, size, stream);
}

EXPORTED ssize_t send(int fd, const void* buffer, size_t length, int flags)
{
    NEXT(send);
    if (failingWith("send", EPIPE)) {
        return -1;
    }
    if (g_shortSend && __atomic_load_n(&g_armed, __ATOMIC_SEQ_CST) && length > 3) {
        length = 3;
    }
    return real(fd, buffer, length, flags);
}

EXPORTED int clock_gettime(clockid_t clock, struct timespec* now)
{
    NEXT(clock_gettime);
    if (clock == CLOCK_REALTIME && __atomic_load_n(&g_armed, __ATOMIC_SEQ_CST)) {
        now->tv_sec = 3723;
        now->tv_nsec = 4000;
        return 0;
    }
    return real(clock, now);
}
