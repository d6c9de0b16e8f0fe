/* A file-backed key store, as the configuration-store stand-in and the device
 * emulation keep it: the value of a key is the content of the file
 * <directory>/<key>, the key's slashes being directory separators
 * ("db/comss/hwduid" -> <directory>/db/comss/hwduid). One trailing newline of
 * the file is not part of the value, so values can be written with echo.
 *
 * Internal to the platform layer: each library that includes this header gets
 * its own copy of these functions, none of them exported. */
#ifndef KZOL_PLATFORM_VALUE_STORE_H
#define KZOL_PLATFORM_VALUE_STORE_H

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Values are short texts; a larger file is not a value of this store. */
#define KZOL_STORE_VALUE_LIMIT (1024 * 1024)

/* A key names a file strictly below the store's directory: relative, made of
 * non-empty components none of which is "." or "..". */
static int store_key_is_safe(const char *key)
{
    if (key == NULL || key[0] == '\0' || key[0] == '/')
        return 0;
    const char *component = key;
    for (;;) {
        const char *end = strchr(component, '/');
        size_t n = end ? (size_t)(end - component) : strlen(component);
        if (n == 0)
            return 0;
        if ((n == 1 && component[0] == '.') || (n == 2 && component[0] == '.' && component[1] == '.'))
            return 0;
        if (end == NULL)
            return 1;
        component = end + 1;
    }
}

/* The value of `key` in the store at `directory`, in malloc'd storage; NULL
 * when the key is unsafe, names no regular file, or the file cannot be read. */
static char *store_read_value(const char *directory, const char *key)
{
    if (directory == NULL || directory[0] == '\0' || !store_key_is_safe(key))
        return NULL;

    size_t dn = strlen(directory), kn = strlen(key);
    char *path = malloc(dn + 1 + kn + 1);
    if (path == NULL)
        return NULL;
    memcpy(path, directory, dn);
    path[dn] = '/';
    memcpy(path + dn + 1, key, kn + 1);

    int fd = open(path, O_RDONLY | O_CLOEXEC);
    free(path);
    if (fd < 0)
        return NULL;

    struct stat64 st; /* 64-bit sizes and inode numbers on 32-bit targets too */
    if (fstat64(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > KZOL_STORE_VALUE_LIMIT) {
        close(fd);
        return NULL;
    }

    /* Read to the end rather than trusting the size: the file may change. */
    size_t capacity = (size_t)st.st_size + 1, length = 0;
    char *value = malloc(capacity + 1);
    if (value == NULL) {
        close(fd);
        return NULL;
    }
    for (;;) {
        if (length == capacity) {
            if (capacity > KZOL_STORE_VALUE_LIMIT) {
                free(value);
                close(fd);
                return NULL;
            }
            char *grown = realloc(value, capacity * 2 + 1);
            if (grown == NULL) {
                free(value);
                close(fd);
                return NULL;
            }
            value = grown;
            capacity *= 2;
        }
        ssize_t r = read(fd, value + length, capacity - length);
        if (r < 0) {
            if (errno == EINTR)
                continue;
            free(value);
            close(fd);
            return NULL;
        }
        if (r == 0)
            break;
        length += (size_t)r;
    }
    close(fd);

    if (length > 0 && value[length - 1] == '\n')
        --length;
    value[length] = '\0';
    return value;
}

#endif
