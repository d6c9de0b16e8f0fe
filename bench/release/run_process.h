// Running a command for a release benchmark: its elapsed and CPU time, peak
// resident memory and exit status.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;  // NOLINT(readability-redundant-declaration): declared by unistd.h only with _GNU_SOURCE

namespace kzol_bench {

struct Measure {
    double seconds = 0;
    double cpuSeconds = 0;  // user and system time of the process
    long peakKiB = 0;
    int status = -1;
};

// Runs `args` with standard output and error discarded, standard input from
// `input` (or /dev/null).
inline Measure runProcess(const std::vector<std::string>& args, const char* input = nullptr)
{
    std::vector<char*> argv;
    for (const std::string& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input != nullptr ? input : "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    Measure m;
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        int status = 0;
        rusage usage{};
        wait4(pid, &status, 0, &usage);
        m.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        m.peakKiB = usage.ru_maxrss;
        m.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
        m.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return m;
}

}  // namespace kzol_bench
