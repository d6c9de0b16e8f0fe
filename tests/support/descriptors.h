// How many descriptors the process holds open: a call that returns must leave
// the count as it found it.
#pragma once

#include <filesystem>
#include <iterator>
#include <system_error>

// The entries of /proc/self/fd, among them the one that reading them opens;
// -1 when the directory cannot be read.
inline int openDescriptors()
{
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/self/fd", error);
    return error ? -1 : static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}
