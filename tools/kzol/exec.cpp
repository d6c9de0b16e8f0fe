// kzol exec: run exactly the bytes that the library approved. The file is
// read once into a sealed memory file, the library decides on that copy
// (verifyFileDescriptor, with FILE as given for the area test and the report),
// and the sealed copy itself is executed: rewriting or replacing FILE after
// the capture changes nothing that runs.
#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
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

constexpr unsigned int c_seals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;

struct ExecOptions {
    std::string caller = "kzol";
};

bool writeAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t put = ::write(fd, data, size);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        data += put;
        size -= static_cast<std::size_t>(put);
    }
    return true;
}

// The whole content of `source` in a sealed memory file with the source's
// permission bits, in `copy`; false (errno set) on failure.
bool sealedCopy(int source, const struct stat& status, UniqueFd& copy)
{
    copy.reset(::memfd_create("kzol-exec", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!copy) {
        return false;
    }
    std::vector<char> buffer(65536);
    for (;;) {
        const ssize_t got = ::read(source, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 || (got > 0 && !writeAll(copy.get(), buffer.data(), static_cast<std::size_t>(got)))) {
            return false;
        }
        if (got == 0) {
            break;
        }
    }
    return ::fchmod(copy.get(), status.st_mode & 0777) == 0 && ::fcntl(copy.get(), F_ADD_SEALS, c_seals) == 0;
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

bool sameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// FILE still names the file that was captured, by the same real path.
bool stillNames(const std::string& file, const struct stat& captured, std::string& realPath)
{
    char resolved[PATH_MAX + 1] = {};
    struct stat now {};
    if (::realpath(file.c_str(), resolved) == nullptr || ::stat(resolved, &now) != 0 || !sameFile(now, captured)) {
        return false;
    }
    const bool same = realPath.empty() || realPath == resolved;
    realPath = resolved;
    return same;
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
    std::string realPath;
    if (!stillNames(file, status, realPath)) {
        return fail(c_exitCannotRun, file + ": changed while it was opened");
    }
    UniqueFd copy;
    if (!sealedCopy(source.get(), status, copy) || !keepOpenForInterpreter(copy.get())) {
        return fail(c_exitCannotRun, file + ": cannot capture its content: " + errnoText(errno));
    }
    const int answer = verifyFileDescriptor(copy.get(), file.c_str(), options.caller.c_str());
    // The decision looked FILE up by name: it holds only if the name led to
    // the captured file throughout.
    if (!stillNames(file, status, realPath)) {
        return fail(c_exitCannotRun, file + ": changed while it was checked");
    }
    if (answer != 1) {
        return fail(c_exitCannotRun, file + ": refused");
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
        "exec", "kzol exec [--caller NAME] FILE [ARGS...]: run FILE with ARGS exactly as the library approved it: FILE "
                "is read once into a sealed "
                "memory file, the library decides on that copy (verifyFileDescriptor; the area test and the "
                "report take FILE as given), and the copy runs, with FILE as its argv[0]. Changing or "
                "replacing FILE after the capture changes nothing that runs. A script's interpreter reads "
                "the copy through /dev/fd/N. Run it under 'kzol emulate PROFILE --' to run as on a television. "
                "Exit status: the program's own; 126 refused or not executable; 127 FILE does not exist; "
                "2 usage.");
    command->add_option("--caller", options->caller, "Caller name shown in messages and reports")
        ->capture_default_str();
    command->prefix_command();
    command->callback([options, command, &status] { status = runExec(*options, command->remaining()); });
}

}  // namespace kzol
