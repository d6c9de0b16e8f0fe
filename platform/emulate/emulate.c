/* Device emulation: makes a process on a PC see a television's environment.
 *
 * Preload this library (LD_PRELOAD, as `kzol emulate` does) or link it ahead
 * of the platform libraries. It answers, from a device profile directory named
 * by the environment variable KZOL_PROFILE (an absolute path), the accesses by
 * which the library probes its device. The layout of the profile is described
 * in profile_layout.h. A missing modules or zone file makes fopen fail with
 * ENOENT, as on a machine without it; a uid file that holds no valid ID counts
 * as absent; a .foreach-result that holds no number makes the walk answer -1.
 *
 * The per-process files that a daemon reads about another process answer
 * from the same profile: /proc/PID/zone is the profile's zone file, and
 * /proc/PID/status is the process's own with its Uid line from the profile's
 * user IDs (when the profile has them), so that a decision for any process
 * on the emulated device sees that device's credentials and container.
 *
 * The profile is read afresh on every call, so a test may change it between
 * calls. Every other path of fopen, and every call while KZOL_PROFILE is unset,
 * goes to the function that the emulation stands in front of (the next
 * definition in the process, found with dlsym(RTLD_NEXT)); where the process
 * has none, the configuration store answers NULL and the USB service fails.
 *
 * Tracing: when KZOL_EMULATE_TRACE names a file, every call that the emulation
 * answers from the profile appends one line to it with a single O_APPEND
 * write: "fopen /proc/modules", "fopen /proc/self/zone", "fopen /proc/PID/zone",
 * "fopen /proc/PID/status", "getuid", "geteuid",
 * "vconf_get_str KEY", "usb_device_init", "usb_mass_storage_foreach",
 * "usb_device_get_mountpath", "usb_device_fini". The line is written when the
 * call begins, so the file shows the order of the calls.
 *
 * Threads: the library keeps no shared mutable state besides the lazily
 * resolved addresses of the functions it stands in front of (atomic); the
 * devices of a walk belong to the walk's own call on its own thread. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <usb_device.h>
#include <vconf.h>

#include "../host/value_store.h"
#include "profile_layout.h"

#define EXPORT __attribute__((visibility("default")))

/* ---- helpers ------------------------------------------------------------ */

static const char *profile_dir(void)
{
    const char *p = getenv("KZOL_PROFILE");
    return p != NULL && p[0] != '\0' ? p : NULL;
}

/* The next definition of `name` after this library, resolved once. */
static void *next_symbol(void **slot, const char *name)
{
    void *f = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (f == NULL) {
        f = dlsym(RTLD_NEXT, name);
        if (f != NULL)
            __atomic_store_n(slot, f, __ATOMIC_RELEASE);
    }
    return f;
}

#define NEXT(type, name)                                                                                               \
    static type next_##name(void)                                                                                      \
    {                                                                                                                  \
        static void *slot;                                                                                             \
        return (type)next_symbol(&slot, #name);                                                                        \
    }

typedef FILE *(*fopen_fn)(const char *, const char *);
typedef uid_t (*uid_fn)(void);
typedef char *(*vconf_get_str_fn)(const char *);
typedef int (*usb_init_fn)(void);
typedef int (*usb_foreach_fn)(void (*)(usb_device_s *, void *), void *);
typedef char *(*usb_mountpath_fn)(usb_device_s *);
typedef void (*usb_fini_fn)(void);

NEXT(fopen_fn, fopen)
NEXT(fopen_fn, fopen64)
NEXT(uid_fn, getuid)
NEXT(uid_fn, geteuid)
NEXT(vconf_get_str_fn, vconf_get_str)
NEXT(usb_init_fn, usb_device_init)
NEXT(usb_foreach_fn, usb_mass_storage_foreach)
NEXT(usb_mountpath_fn, usb_device_get_mountpath)
NEXT(usb_fini_fn, usb_device_fini)

/* Appends "WHAT[ ARG]\n" to the trace file, if there is one, in one write.
 * errno is left as it was. */
static void trace(const char *what, const char *arg)
{
    const char *file = getenv("KZOL_EMULATE_TRACE");
    if (file == NULL || file[0] == '\0')
        return;
    int saved = errno;
    size_t wn = strlen(what), an = arg ? strlen(arg) : 0;
    size_t total = wn + (arg ? 1 + an : 0) + 1;
    char small[512];
    char *line = total <= sizeof small ? small : malloc(total);
    if (line != NULL) {
        memcpy(line, what, wn);
        if (arg) {
            line[wn] = ' ';
            memcpy(line + wn + 1, arg, an);
        }
        line[total - 1] = '\n';
        int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ssize_t w;
            do
                w = write(fd, line, total);
            while (w < 0 && errno == EINTR);
            close(fd);
        }
        if (line != small)
            free(line);
    }
    errno = saved;
}

/* PROFILE/NAME into `out`; 0 when it does not fit. */
static int profile_path(char *out, size_t size, const char *profile, const char *name)
{
    int n = snprintf(out, size, "%s/%s", profile, name);
    return n >= 0 && (size_t)n < size;
}

/* The small text file PROFILE/NAME, NUL-terminated; 0 when absent or too long. */
static int read_small_file(const char *profile, const char *name, char *out, size_t size)
{
    char path[PATH_MAX];
    if (!profile_path(path, sizeof path, profile, name))
        return 0;
    int saved = errno;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        errno = saved;
        return 0;
    }
    size_t length = 0;
    for (;;) {
        ssize_t r = read(fd, out + length, size - 1 - length);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        length += (size_t)r;
        if (length == size - 1)
            break;
    }
    close(fd);
    errno = saved;
    out[length] = '\0';
    return 1;
}

static int is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

/* A decimal number at *p, after blanks; advances *p. */
static int parse_long(const char **p, long long min, long long max, long long *value)
{
    const char *s = *p;
    while (is_blank(*s))
        ++s;
    if (*s == '\0')
        return 0;
    char *end = NULL;
    errno = 0;
    long long v = strtoll(s, &end, 10);
    if (end == s || errno != 0 || v < min || v > max || (*end != '\0' && !is_blank(*end)))
        return 0;
    *value = v;
    *p = end;
    return 1;
}

static int only_blanks(const char *s)
{
    while (is_blank(*s))
        ++s;
    return *s == '\0';
}

/* The profile's IDs: which = 0 for the real ID, 1 for the effective one. */
static int profile_uid(const char *profile, int which, uid_t *uid)
{
    char text[128];
    if (!read_small_file(profile, KZOL_PROFILE_UID, text, sizeof text))
        return 0;
    int saved = errno;
    const char *p = text;
    long long ruid, euid;
    int ok = parse_long(&p, 0, (long long)UINT32_MAX - 1, &ruid);
    if (ok) {
        if (only_blanks(p))
            euid = ruid;
        else
            ok = parse_long(&p, 0, (long long)UINT32_MAX - 1, &euid) && only_blanks(p);
    }
    errno = saved;
    if (!ok)
        return 0;
    *uid = (uid_t)(which == 0 ? ruid : euid);
    return 1;
}

/* ---- /proc files ---------------------------------------------------------- */

/* The part of /proc/PID/NAME after "/proc/": PID all digits; NULL when `path`
 * is not such a file of a process. */
static const char *process_file(const char *path, const char *name)
{
    if (strncmp(path, "/proc/", 6) != 0)
        return NULL;
    const char *p = path + 6;
    if (*p < '0' || *p > '9')
        return NULL;
    while (*p >= '0' && *p <= '9')
        ++p;
    return *p == '/' && strcmp(p + 1, name) == 0 ? p : NULL;
}

static const char *profile_file_for(const char *path)
{
    if (path == NULL)
        return NULL;
    if (strcmp(path, "/proc/modules") == 0)
        return KZOL_PROFILE_MODULES;
    if (strcmp(path, "/proc/self/zone") == 0 || process_file(path, "zone") != NULL)
        return KZOL_PROFILE_ZONE;
    return NULL;
}

/* /proc/PID/status as the process's own, with its Uid line taken from the
 * profile's user IDs (real, effective, and the effective one as saved and file
 * system ID); NULL (errno set) when the real file cannot be read. */
static FILE *status_with_profile_uids(fopen_fn next, const char *path, uid_t ruid, uid_t euid)
{
    FILE *real = next(path, "r");
    if (real == NULL)
        return NULL;
    char *text = NULL;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    char line[512];
    while (out != NULL && fgets(line, sizeof line, real) != NULL) {
        if (strncmp(line, "Uid:", 4) == 0)
            fprintf(out, "Uid:\t%u\t%u\t%u\t%u\n", (unsigned)ruid, (unsigned)euid, (unsigned)euid, (unsigned)euid);
        else
            fputs(line, out);
    }
    fclose(real);
    if (out == NULL || fclose(out) != 0) {
        free(text);
        errno = ENOMEM;
        return NULL;
    }
    /* A stream of its own over a copy that it frees when closed. */
    FILE *answer = fmemopen(NULL, size + 1, "w+");
    if (answer != NULL) {
        fwrite(text, 1, size, answer);
        rewind(answer);
    }
    free(text);
    return answer;
}

static FILE *emulated_fopen(fopen_fn next, const char *path, const char *mode)
{
    const char *profile = profile_dir();
    const char *name = profile ? profile_file_for(path) : NULL;
    uid_t ruid, euid;
    if (name == NULL && profile != NULL && next != NULL && path != NULL && process_file(path, "status") != NULL &&
        profile_uid(profile, 0, &ruid) && profile_uid(profile, 1, &euid)) {
        trace("fopen", path);
        return status_with_profile_uids(next, path, ruid, euid);
    }
    if (name == NULL) {
        if (next == NULL) {
            errno = ENOSYS;
            return NULL;
        }
        return next(path, mode);
    }
    trace("fopen", path);
    char file[PATH_MAX];
    if (!profile_path(file, sizeof file, profile, name)) {
        errno = ENAMETOOLONG;
        return NULL;
    }
    if (next == NULL) {
        errno = ENOSYS;
        return NULL;
    }
    return next(file, mode);
}

EXPORT FILE *fopen(const char *path, const char *mode)
{
    return emulated_fopen(next_fopen(), path, mode);
}

EXPORT FILE *fopen64(const char *path, const char *mode)
{
    return emulated_fopen(next_fopen64(), path, mode);
}

/* ---- user IDs ------------------------------------------------------------- */

EXPORT uid_t getuid(void)
{
    const char *profile = profile_dir();
    uid_t uid;
    if (profile != NULL) {
        trace("getuid", NULL);
        if (profile_uid(profile, 0, &uid))
            return uid;
    }
    uid_fn next = next_getuid();
    return next ? next() : (uid_t)-1;
}

EXPORT uid_t geteuid(void)
{
    const char *profile = profile_dir();
    uid_t uid;
    if (profile != NULL) {
        trace("geteuid", NULL);
        if (profile_uid(profile, 1, &uid))
            return uid;
    }
    uid_fn next = next_geteuid();
    return next ? next() : (uid_t)-1;
}

/* ---- configuration store -------------------------------------------------- */

EXPORT char *vconf_get_str(const char *key)
{
    const char *profile = profile_dir();
    if (profile == NULL) {
        vconf_get_str_fn next = next_vconf_get_str();
        return next ? next(key) : NULL;
    }
    trace("vconf_get_str", key ? key : "(null)");
    char store[PATH_MAX];
    if (!profile_path(store, sizeof store, profile, KZOL_PROFILE_VCONF))
        return NULL;
    return store_read_value(store, key);
}

/* ---- USB device service --------------------------------------------------- */

struct usb_device_s {
    char *mountpath; /* NULL: a device without a mount path */
};

struct usb_entry {
    char *name;
    char *mountpath;
};

/* The walks in progress on this thread, innermost first: a device handed to a
 * callback is recognised as one of ours by its address. */
struct walk {
    struct usb_device_s *devices;
    size_t count;
    struct walk *outer;
};
static __thread struct walk *t_walks;

static int entry_order(const void *a, const void *b)
{
    return strcmp(((const struct usb_entry *)a)->name, ((const struct usb_entry *)b)->name);
}

static int usb_directory(const char *profile, char *out, size_t size)
{
    return profile_path(out, size, profile, KZOL_PROFILE_USB);
}

/* The 64-bit forms of stat and readdir: on a 32-bit target the plain ones
 * fail with EOVERFLOW on a file system with 64-bit inode numbers. (This file
 * defines fopen and fopen64 both, so it cannot take _FILE_OFFSET_BITS=64.) */
static int is_directory(const char *path)
{
    struct stat64 st;
    return stat64(path, &st) == 0 && S_ISDIR(st.st_mode);
}

static int ends_with(const char *s, const char *suffix)
{
    size_t n = strlen(s), m = strlen(suffix);
    return n >= m && strcmp(s + n - m, suffix) == 0;
}

static void free_entries(struct usb_entry *entries, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        free(entries[i].name);
        free(entries[i].mountpath);
    }
    free(entries);
}

/* The devices of PROFILE/usb in name order; -1 when the directory cannot be read. */
static int list_devices(const char *dir, struct usb_entry **entries_out, size_t *count_out)
{
    DIR *d = opendir(dir);
    if (d == NULL)
        return -1;
    struct usb_entry *entries = NULL;
    size_t count = 0, capacity = 0;
    int rc = 0;
    struct dirent64 *e;
    while ((e = readdir64(d)) != NULL) {
        if (e->d_name[0] == '.')
            continue;
        char path[PATH_MAX];
        int n = snprintf(path, sizeof path, "%s/%s", dir, e->d_name);
        if (n < 0 || (size_t)n >= sizeof path)
            continue;
        struct stat64 st;
        if (stat64(path, &st) != 0)
            continue;
        int mounted = S_ISDIR(st.st_mode);
        if (!mounted && !(S_ISREG(st.st_mode) && ends_with(e->d_name, KZOL_PROFILE_NOMOUNT_SUFFIX)))
            continue;
        if (count == capacity) {
            size_t grown_capacity = capacity ? capacity * 2 : 8;
            struct usb_entry *grown = realloc(entries, grown_capacity * sizeof *grown);
            if (grown == NULL) {
                rc = -1;
                break;
            }
            entries = grown;
            capacity = grown_capacity;
        }
        entries[count].name = strdup(e->d_name);
        entries[count].mountpath = mounted ? strdup(path) : NULL;
        ++count;
        if (entries[count - 1].name == NULL || (mounted && entries[count - 1].mountpath == NULL)) {
            rc = -1;
            break;
        }
    }
    closedir(d);
    if (rc != 0) {
        free_entries(entries, count);
        return -1;
    }
    if (count > 1)
        qsort(entries, count, sizeof *entries, entry_order);
    *entries_out = entries;
    *count_out = count;
    return 0;
}

/* The answer that PROFILE/usb/.foreach-result asks for. */
static int foreach_result(const char *dir)
{
    char text[64];
    if (!read_small_file(dir, KZOL_PROFILE_FOREACH_RESULT, text, sizeof text))
        return 0;
    const char *p = text;
    long long v;
    int saved = errno;
    int ok = parse_long(&p, INT32_MIN, INT32_MAX, &v) && only_blanks(p);
    errno = saved;
    return ok ? (int)v : -1;
}

EXPORT int usb_device_init(void)
{
    const char *profile = profile_dir();
    if (profile == NULL) {
        usb_init_fn next = next_usb_device_init();
        return next ? next() : -1;
    }
    trace("usb_device_init", NULL);
    char dir[PATH_MAX];
    return usb_directory(profile, dir, sizeof dir) && is_directory(dir) ? 0 : -1;
}

EXPORT int usb_mass_storage_foreach(void (*cb)(usb_device_s *, void *), void *user_data)
{
    const char *profile = profile_dir();
    if (profile == NULL) {
        usb_foreach_fn next = next_usb_mass_storage_foreach();
        return next ? next(cb, user_data) : -1;
    }
    trace("usb_mass_storage_foreach", NULL);
    char dir[PATH_MAX];
    struct usb_entry *entries = NULL;
    size_t count = 0;
    if (!usb_directory(profile, dir, sizeof dir) || list_devices(dir, &entries, &count) != 0)
        return -1;
    const int result = foreach_result(dir);

    struct usb_device_s *devices = count ? calloc(count, sizeof *devices) : NULL;
    if (count > 0 && devices == NULL) {
        free_entries(entries, count);
        return -1;
    }
    for (size_t i = 0; i < count; ++i)
        devices[i].mountpath = entries[i].mountpath;

    struct walk walk = {devices, count, t_walks};
    t_walks = &walk;
    if (cb != NULL) {
        for (size_t i = 0; i < count; ++i)
            cb(&devices[i], user_data);
    }
    t_walks = walk.outer;

    free_entries(entries, count);
    free(devices);
    return result;
}

static int is_our_device(const usb_device_s *device)
{
    for (const struct walk *w = t_walks; w != NULL; w = w->outer) {
        for (size_t i = 0; i < w->count; ++i) {
            if (&w->devices[i] == device)
                return 1;
        }
    }
    return 0;
}

EXPORT char *usb_device_get_mountpath(usb_device_s *device)
{
    if (is_our_device(device)) {
        trace("usb_device_get_mountpath", NULL);
        return device->mountpath;
    }
    if (profile_dir() != NULL) {
        /* Not a device of a walk in progress: nothing the service knows. */
        trace("usb_device_get_mountpath", NULL);
        return NULL;
    }
    usb_mountpath_fn next = next_usb_device_get_mountpath();
    return next ? next(device) : NULL;
}

EXPORT void usb_device_fini(void)
{
    if (profile_dir() == NULL) {
        usb_fini_fn next = next_usb_device_fini();
        if (next)
            next();
        return;
    }
    trace("usb_device_fini", NULL);
}
