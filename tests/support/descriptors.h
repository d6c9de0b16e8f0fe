// How many descriptors the process holds open: a call that returns must leave
// the count as it found it.
#pragma once

#include <dirent.h>

// The entries of /proc/self/fd, less the one that reading them opens; -1 when
// the directory cannot be read.
inline int openDescriptors()
{
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    while (const dirent* entry = readdir(dir)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    (void)closedir(dir);
    return count;
}
