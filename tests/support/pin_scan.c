/* A preloaded shim that searches the process's writable memory for a secret
 * when the process ends: heap, stack, anonymous mappings and the libraries'
 * data. The secret is the first line of the file KZOL_PIN_SCAN_SECRET names;
 * the shim keeps it only masked (every byte XOR 0x5a), so that it never finds
 * its own copy. Each place where the secret is found is appended as one line
 * to the file KZOL_PIN_SCAN_OUT: "argv" when
 * it lies in the command line the caller gave, else the mapping's name
 * ("[heap]", "[stack]", a library's path, or "anonymous"). */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define MAX_SECRET 64

static unsigned char g_masked[MAX_SECRET];
static size_t g_length;
static const char* g_argvStart;
static const char* g_argvEnd;
static char g_out[4096];

__attribute__((constructor)) static void pin_scan_start(int argc, char** argv, char** envp)
{
    (void)envp;
    const char* secret = getenv("KZOL_PIN_SCAN_SECRET");
    const char* out = getenv("KZOL_PIN_SCAN_OUT");
    if (secret == NULL || out == NULL || strlen(out) >= sizeof(g_out)) {
        return;
    }
    volatile unsigned char bytes[MAX_SECRET];
    const int fd = open(secret, O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd < 0 ? -1 : read(fd, (void*)bytes, sizeof(bytes));
    for (g_length = 0; (ssize_t)g_length < n && bytes[g_length] != '\n'; ++g_length) {
        g_masked[g_length] = bytes[g_length] ^ 0x5a;
    }
    for (size_t i = 0; i < sizeof(bytes); ++i) {
        bytes[i] = 0;
    }
    if (fd >= 0) {
        close(fd);
    }
    strcpy(g_out, out);
    if (argc > 0) {
        g_argvStart = argv[0];
        g_argvEnd = argv[argc - 1] + strlen(argv[argc - 1]);
    }
}

static int found_at(const unsigned char* p)
{
    for (size_t i = 0; i < g_length; ++i) {
        if ((unsigned char)(p[i] ^ 0x5a) != g_masked[i]) {
            return 0;
        }
    }
    return 1;
}

__attribute__((destructor)) static void pin_scan_finish(void)
{
    if (g_length == 0) {
        return;
    }
    FILE* maps = fopen("/proc/self/maps", "r");
    const int out = open(g_out, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (maps == NULL || out < 0) {
        _exit(121);
    }
    char line[4096];
    while (fgets(line, sizeof(line), maps) != NULL) {
        unsigned long start = 0, end = 0;
        char perms[5] = {0};
        int name = 0;
        if (sscanf(line, "%lx-%lx %4s %*s %*s %*s %n", &start, &end, perms, &name) < 3 || perms[0] != 'r' ||
            perms[1] != 'w') {
            continue;
        }
        line[strcspn(line, "\n")] = 0;
        const char* region = line[name] != 0 ? line + name : "anonymous";
        for (const unsigned char* p = (const unsigned char*)start; p + g_length <= (const unsigned char*)end; ++p) {
            if (found_at(p)) {
                const char* c = (const char*)p;
                const char* where = c >= g_argvStart && c < g_argvEnd ? "argv" : region;
                dprintf(out, "%s\n", where);
            }
        }
    }
    fclose(maps);
    close(out);
}
