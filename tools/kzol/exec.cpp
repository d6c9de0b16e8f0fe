// kzol exec: run exactly the bytes that the library approved. FILE is opened
// once; the library decides on that open file (verifyOpenFileToRun: the area
// from where the kernel says the file lies, the content from a sealed copy
// that it makes of it), the kernel is asked too where it can be
// (AT_EXECVE_CHECK, so that an enforcing daemon or a noexec mount applies),
// and exactly what was decided runs: renaming, rewriting or replacing FILE or
// a directory of its path changes nothing that runs.
#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "common.h"
#include "kZOLUser.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): declared by unistd.h only with _GNU_SOURCE

namespace kzol {

namespace {

// Exit statuses of kzol exec, as a shell gives them.
constexpr int c_exitCannotRun = 126;  // refused, or not executable
constexpr int c_exitNotFound = 127;

constexpr int c_execveCheck = 0x10000;  // execveat: only ask whether the file may run
// The largest file captured by default: a script or a program of a device.
constexpr unsigned long long c_defaultMaxSize = 64ULL << 20U;

struct ExecOptions {
    std::string caller = "kzol";
    unsigned long long maxSize = c_defaultMaxSize;
};

// The kernel's answer where it has one (Linux 6.14 on); an older kernel
// rejects the flag (EINVAL) before it looks at the file, and nothing runs.
bool kernelRefuses(int fd, int& error)
{
    char* const none[] = {nullptr};
    if (::syscall(SYS_execveat, fd, "", none, none, AT_EMPTY_PATH | c_execveCheck) == 0 || errno == EINVAL ||
        errno == ENOSYS) {
        return false;
    }
    error = errno;
    return true;
}

// A script runs through its interpreter, which opens the copy as /dev/fd/N:
// that descriptor must stay open across the exec. A binary needs no such path.
bool keepOpenForInterpreter(int copy)
{
    char magic[2] = {};
    if (::pread(copy, magic, sizeof(magic), 0) != static_cast<ssize_t>(sizeof(magic)) || magic[0] != '#' ||
        magic[1] != '!') {
        return true;
    }
    const int flags = ::fcntl(copy, F_GETFD);
    return flags >= 0 && ::fcntl(copy, F_SETFD, flags & ~FD_CLOEXEC) == 0;
}

int runExec(const ExecOptions& options, const std::vector<std::string>& args)
{
    if (args.empty()) {
        return fail("exec: a FILE to run is required");
    }
    const std::string& file = args.front();
    const UniqueFd source(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!source) {
        const int err = errno;
        return fail(err == ENOENT ? c_exitNotFound : c_exitCannotRun, file + ": " + errnoText(err));
    }
    struct stat status {};
    if (::fstat(source.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return fail(c_exitCannotRun, file + ": not a regular file");
    }
    if (static_cast<unsigned long long>(status.st_size) > options.maxSize) {
        return fail(c_exitCannotRun, file + ": " + std::to_string(status.st_size) +
                                         " bytes, more than the capture limit of " + std::to_string(options.maxSize) +
                                         " (--max-size)");
    }
    int error = 0;
    if (kernelRefuses(source.get(), error)) {
        return fail(c_exitCannotRun, file + ": the kernel refuses to run it: " + errnoText(error));
    }
    int run = -1;
    if (verifyOpenFileToRun(source.get(), options.caller.c_str(), options.maxSize, &run) != 1) {
        return fail(c_exitCannotRun, file + ": refused");
    }
    const UniqueFd copy(run);
    if (!keepOpenForInterpreter(copy.get())) {
        return fail(c_exitCannotRun, file + ": " + errnoText(errno));
    }

    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::cout.flush();
    ::fexecve(copy.get(), argv.data(), environ);
    return fail(c_exitCannotRun, "cannot run " + file + ": " + errnoText(errno));
}

}  // namespace

void addExecCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<ExecOptions>();
    CLI::App* command = app.add_subcommand(
        "exec", "kzol exec [--caller NAME] [--max-size BYTES] FILE [ARGS...]: run FILE with ARGS exactly as the "
                "library approved it");
    command->footer(
        "FILE is opened once. The library decides on that open file (verifyOpenFileToRun): the area from where\n"
        "the kernel says the file lies, the content from a sealed memory copy of it; the kernel is asked too\n"
        "(AT_EXECVE_CHECK, Linux 6.14 on). What runs is that copy (or, when the file needed no signature, the\n"
        "file opened), with FILE as its argv[0]: renaming, rewriting or replacing FILE or a directory of its\n"
        "path changes nothing that runs. A script's interpreter reads it through /dev/fd/N. A file larger\n"
        "than --max-size is not run. Run it under 'kzol emulate PROFILE --' to run as on a television.\n"
        "Exit status: the program's own; 126 refused, too large or not executable; 127 FILE does not exist;\n"
        "2 usage.\n");
    command->add_option("--caller", options->caller, "Caller name shown in messages and reports")
        ->capture_default_str();
    command->add_option("--max-size", options->maxSize, "Largest file captured, in bytes")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    command->prefix_command();
    command->callback([options, command, &status] { status = runExec(*options, command->remaining()); });
}

}  // namespace kzol
