// kzol enforce: the library's decision as the kernel's answer. A fanotify
// group of the content class marks the file systems of the user-writable
// areas for FAN_OPEN_EXEC_PERM: every execve of a file there, and every
// AT_EXECVE_CHECK of an interpreter, waits until the daemon answers with the
// library's decision on the opened file. The group is held by the supervisor
// (enforce_supervisor), the events are answered by its worker process
// (enforce_loop), allowed signed files are remembered (enforce_cache).
#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "common.h"
#include "enforce_supervisor.h"

namespace kzol {

namespace {

constexpr unsigned int c_maxWorkers = 64;

struct EnforceOptions {
    std::vector<std::string> marks;
    unsigned int workers = 2;
};

// The devices of the file systems that hold / and this process's own program
// and libraries: marking one of them could make the daemon wait on itself.
std::set<dev_t> ownFileSystems()
{
    std::set<dev_t> devices;
    struct stat status {};
    if (::stat("/", &status) == 0) {
        devices.insert(status.st_dev);
    }
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const std::size_t slash = line.find('/');
        if (slash != std::string::npos && ::stat(line.substr(slash).c_str(), &status) == 0) {
            devices.insert(status.st_dev);
        }
    }
    if (::stat("/proc/self/exe", &status) == 0) {
        devices.insert(status.st_dev);
    }
    return devices;
}

// Marks the file system of `path` (its mount where the file system cannot be
// marked as a whole); "" or the reason it was not marked.
std::string markFileSystem(int group, const std::string& path, const std::set<dev_t>& ownDevices)
{
    const UniqueFd directory(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!directory || ::fstat(directory.get(), &status) != 0) {
        return path + ": " + errnoText(errno);
    }
    if (ownDevices.count(status.st_dev) != 0) {
        return path + " is on the file system of / or of this program's own files: not marked";
    }
    if (::fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_OPEN_EXEC_PERM, directory.get(), nullptr) == 0 ||
        ::fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_MOUNT, FAN_OPEN_EXEC_PERM, directory.get(), nullptr) == 0) {
        return "";
    }
    return path + ": cannot be marked: " + errnoText(errno);
}

int runEnforce(const EnforceOptions& options)
{
    if (options.workers == 0 || options.workers > c_maxWorkers) {
        return fail("enforce: --workers takes 1 to " + std::to_string(c_maxWorkers));
    }
    // Blocked from the start, so that a stop request is never lost.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    (void)::sigprocmask(SIG_BLOCK, &stop, nullptr);

    const UniqueFd group(
        ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_UNLIMITED_QUEUE, O_RDONLY | O_LARGEFILE | O_CLOEXEC));
    if (!group) {
        const int err = errno;
        return fail("enforce: the kernel refuses a fanotify group (" + errnoText(err) +
                    "): run as root, outside a user namespace, on Linux 5.0 or later");
    }
    std::vector<std::string> marks = options.marks;
    if (marks.empty()) {
        for (const char* area : {"/opt", "/tmp"}) {
            struct stat status {};
            if (::stat(area, &status) == 0) {
                marks.emplace_back(area);
            }
        }
    }
    if (marks.empty()) {
        return fail("enforce: nothing to mark: neither /opt nor /tmp exists; name a file system with --mark");
    }
    const std::set<dev_t> ownDevices = ownFileSystems();
    for (const std::string& path : marks) {
        const std::string error = markFileSystem(group.get(), path, ownDevices);
        if (!error.empty()) {
            return fail("enforce: " + error);
        }
    }
    return superviseWorkers(group.get(), options.workers, [] { std::cout << "kzol enforce: ready" << std::endl; });
}

}  // namespace

void addEnforceCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<EnforceOptions>();
    CLI::App* command = app.add_subcommand(
        "enforce",
        "kzol enforce [--mark PATH]... [--workers N]: make the library's decision the kernel's answer to every "
        "execution of a file on the marked file systems (fanotify FAN_OPEN_EXEC_PERM: execve, and an "
        "interpreter's execveat with AT_EXECVE_CHECK). Runs in the foreground; prints 'kzol enforce: ready' once "
        "every mark is in place; SIGTERM or SIGINT end it, and its marks go with it. Refusals are reported as "
        "the library reports them. A worker that dies or stalls never lets a pending execution through; if the "
        "whole daemon is killed, the kernel lets pending and later executions run: start it early, restart it, "
        "and keep its own files on read-only storage. Run it under 'kzol emulate PROFILE --' to decide as on "
        "that device. Needs root outside a user namespace, Linux >= 5.0 (>= 6.14 for AT_EXECVE_CHECK). "
        "Exit status: 0 stopped by a signal; 2 usage, no privilege, or a path that cannot be marked.");
    command
        ->add_option("--mark", options->marks,
                     "A path whose file system is marked (repeatable; default: the file systems of /opt and "
                     "/tmp). The file systems of / and of kzol's own files are refused.")
        ->type_name("PATH");
    command->add_option("--workers", options->workers, "Threads that decide what the cache does not know")
        ->capture_default_str();
    command->callback([options, &status] { status = runEnforce(*options); });
}

}  // namespace kzol
