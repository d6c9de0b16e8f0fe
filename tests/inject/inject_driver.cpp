// Failure-injection driver: runs one scenario of the shipped library with the
// fault shim preloaded. It first counts the fallible calls the scenario makes,
// then, each in a process of its own, fails the k-th one for every k (or a
// sample, see below), and runs it once more with every send cut to three
// bytes. For each run it checks: the process neither crashed nor aborted; it
// holds no more descriptors after the call than before; a file that must be
// refused was not answered 1 (in the default build the two documented
// fail-open steps are counted apart); the daemon received the same frames
// as without faults whenever the call delivered anything; every line the
// library wrote to the platform log or to standard error is a documented one.
//
//   inject_driver NAME check|descriptor|open|run|report|verify PATH REFUSE(0|1)
//
// Prints one line of figures and exits 0 when no check failed.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "bs_context.h"
#include "descriptors.h"
#include "dlog.h"
#include "handles.h"
#include "kZOLUser.h"

namespace {

// The lines the library may write. A pattern is fixed text in which "%s"
// stands for any text, "%d" for a decimal number, "%c" for one character and
// "%i" for a name (letters, digits, '_' and ':').
struct PlatformMessage {
    int prio;
    const char* file;
    const char* function;  // "%i" where any function may log it
    const char* text;      // between the level's colour and the closing reset
};

const PlatformMessage c_platformMessages[] = {
    // Signed-file layout.
    {DLOG_ERROR, "signature.cpp", "%i", "Signature::loadFromFile(): failed to open [%s] for reading"},
    {DLOG_ERROR, "signature.cpp", "%i", "Signature::%s() fread error "},
    {DLOG_ERROR, "signature.cpp", "%i", "Signature::getFileSize(): pFile is NULL"},
    {DLOG_ERROR, "signature.cpp", "%i", "Signature::%s(): file to read file"},
    {DLOG_ERROR, "signature.cpp", "%i", "Signature::%s(): file to read file signature type[%c]"},
    {DLOG_ERROR, "signature.cpp", "%i", "Signature::readFromFile(): NULL arguments"},
    // Codecs.
    {DLOG_ERROR, "string_utils.cpp", "%i", "fromMPIString(): invalid value found"},
    // Signature check context.
    {DLOG_ERROR, "verify_context.cpp", "loadKey", "VerifyContext::loadKey(): failed to allocate key"},
    {DLOG_ERROR, "verify_context.cpp", "loadKey", "VerifyContext::loadKey(): failed to load public key"},
    {DLOG_ERROR, "verify_context.cpp", "init", "VerifyContext::init(): failed to allocate OpenSSL context"},
    {DLOG_ERROR, "verify_context.cpp", "update", "VerifyContext::update(): m_pContext is NULL"},
    {DLOG_ERROR, "verify_context.cpp", "update", "VerifyContext::update(): data is NULL"},
    {DLOG_ERROR, "verify_context.cpp", "update", "VerifyContext::update(): data is empty"},
    {DLOG_ERROR, "verify_context.cpp", "check", "VerifyContext::check(): pSignature is NULL"},
    {DLOG_ERROR, "verify_context.cpp", "check", "VerifyContext::check(): m_pKey or m_pContext is NULL"},
    {DLOG_ERROR, "verify_context.cpp", "check", "VerifyContext::check(): signature is empty"},
    {DLOG_ERROR, "verify_context.cpp", "checkMPI", "VerifyContext::checkMPI(): invalid MPI format"},
    // Verification driver.
    {DLOG_ERROR, "bs_context.cpp", "verifyFile", "[zol][%s]! : \033[1;31mNot Signed [ file_path : %s ]\033[0m"},
    {DLOG_INFO, "bs_context.cpp", "verifyFile", "[zol][%s] : \033[1;32mCorrect Signed [ file_path : %s ]\033[0m"},
    {DLOG_ERROR, "bs_context.cpp", "verifyFile", "[zol][%s]! : \033[1;31mIncorrect Signed [ file_path : %s ]\033[0m"},
    {DLOG_ERROR, "bs_context.cpp", "verify", "BSContext::verify(): failed to open [%s] for reading"},
    {DLOG_ERROR, "bs_context.cpp", "verify", "BSContext::verify(): failed to load RSA key from %s"},
    {DLOG_ERROR, "bs_context.cpp", "getFileSize", "BSContext::getFileSize(): pFile is NULL"},
    // Socket channel.
    {DLOG_ERROR, "UnixSocket.cpp", "ConnectToHost", "connect() error ;"},
    {DLOG_ERROR, "UnixSocket.cpp", "Bind", "bind() error ;"},
    {DLOG_ERROR, "UnixSocket.cpp", "Listen", "listen() error ;"},
    {DLOG_ERROR, "UnixSocket.cpp", "AcceptConnection", "accept() error; "},
    {DLOG_ERROR, "UnixSocket.cpp", "AcceptConnection", "timed out after %d msec;"},
    {DLOG_ERROR, "UnixSocket.cpp", "SetNonBlocking", "fcntl() error ;"},
    // Notification sender and security reports.
    {DLOG_ERROR, "bs_context.cpp", "SendRequestNotification", "Failed to connect to vexmd;"},
    {DLOG_ERROR, "bs_context.cpp", "SendRequestNotification", "Failed to send request [%s];"},
    {DLOG_ERROR, "bs_context.cpp", "SendRequestNotification", "Failed to disconnect;"},
    {DLOG_ERROR, "bs_context.cpp", "SendRequestNotification",
     "Report not delivered: the listener is not the daemon's user %d;"},
    {DLOG_INFO, "main.cpp", "SendSecurityReport", "Start Send Report"},
    {DLOG_INFO, "main.cpp", "SendSecurityReport", "[zol][%s]! : \033[1;33mSendRequest [LogReport]\033[0m"},
    {DLOG_INFO, "main.cpp", "SendSecurityReport", "[zol][%s]! : \033[1;33mSendRequest [FileReport]\033[0m"},
    {DLOG_INFO, "main.cpp", "SendSecurityReport", "[zol][%s]! : \033[1;33mSendRequest [DataReport]\033[0m"},
    {DLOG_ERROR, "main.cpp", "SendSecurityReport", "[zol][%s]! : \033[1;31mSendRequest Notification Error\033[0m"},
    // Device environment probes.
    {DLOG_ERROR, "bs_context.cpp", "checkFileIsInRWUser", "realpath() error : %s;"},
    {DLOG_INFO, "main.cpp", "IsDTV", "[zol] /proc/modules is not exited"},
    {DLOG_ERROR, "securezone_context.cpp", "getContainerInformation", "Failed to open zone file"},
    {DLOG_ERROR, "securezone_context.cpp", "getContainerInformation", "Failed to read zone file"},
    {DLOG_INFO, "securezone_context.cpp", "isIsolatedContainer", "[zol] Isolate container process lv : %d, type : 1"},
    // Disable certificate.
    {DLOG_WARN, "main.cpp", "FindZOLDiableFile", "No connected usb_mass_storage"},
    {DLOG_INFO, "main.cpp", "handleStorageCallback", "Find USBZOLPath : %s"},
    {DLOG_ERROR, "main.cpp", "GetDUID", "Hwduid get failed;"},
    {DLOG_ERROR, "bs_context.cpp", "verifyWithDeviceId",
     "BSContext::verifyWithDeviceId(): failed to open [%s] for reading"},
    {DLOG_INFO, "bs_context.cpp", "verifyFileWithDeviceId",
     "[zol][%s] : \033[1;32mDUID Correct Signed [ file_path : %s ]\033[0m"},
    {DLOG_ERROR, "bs_context.cpp", "verifyFileWithDeviceId",
     "[zol][%s]! : \033[1;31mDUID Incorrect Signed [ file_path : %s ]\033[0m"},
    // Policy of the exported entry points.
    {DLOG_ERROR, "main.cpp", "verifyFileWihtoutKey", "%s does not exist;"},
    {DLOG_INFO, "main.cpp", "verifyFileWihtoutKey", "[zol][%s] : \033[1;35mDisable Script ZOL\033[0m"},
    {DLOG_ERROR, "main.cpp", "verifyFileWihtoutKey", "[zol][%s is not existed];"},
    {DLOG_ERROR, "main.cpp", "verifyFileWihtoutKey", "[zol][%s]! : \033[1;31mSendRequest Notification Error\033[0m"},
    {DLOG_ERROR, "main.cpp", "verifyFileWihtoutKey",
     "[zol][%s]! : \033[1;31mExecution refused by the kernel [ fd : %d : %s ]\033[0m"},
};

// Standard-error lines, without their line feed: those of the log() helper,
// and the readability probe's own.
const char* const c_standardErrorMessages[] = {
    "socket() error ;",
    "send() error ;",
    "recv() error ;",
    "peer is shutdown;",
    "[zol][%s] : error during signature check [ file_path : %s ]",
    "BSContext::verifyFileWithDeviceId(): error during signature check",
    "\033[1;31m[zol][%s:%s][%d];\033[0m",
};

bool isNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == ':';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Whether `text` matches `pattern` whole (see above).
bool matches(const char* pattern, const char* text)
{
    for (; *pattern != '\0'; ++pattern, ++text) {
        if (pattern[0] == '%' && pattern[1] == 's') {
            for (const char* rest = text;; ++rest) {
                if (matches(pattern + 2, rest)) {
                    return true;
                }
                if (*rest == '\0') {
                    return false;
                }
            }
        }
        if (pattern[0] == '%' && (pattern[1] == 'd' || pattern[1] == 'i')) {
            const bool number = pattern[1] == 'd';
            if (number && *text == '-') {
                ++text;
            }
            const char* end = text;
            while (number ? isDigit(*end) : isNameCharacter(*end)) {
                ++end;
            }
            if (end == text) {
                return false;
            }
            return matches(pattern + 2, end);
        }
        if (pattern[0] == '%' && pattern[1] == 'c') {
            if (*text == '\0') {
                return false;
            }
            ++pattern;
            continue;
        }
        if (*pattern != *text) {
            return false;
        }
    }
    return *text == '\0';
}

const char* colourOf(int prio)
{
    switch (prio) {
    case DLOG_ERROR: return "\033[31m";
    case DLOG_INFO: return "\033[36m";
    case DLOG_WARN: return "\033[33m";
    default: return "?";
    }
}

bool documentedPlatformLine(int prio, bool libraryTag, const char* line)
{
    if (!libraryTag) {
        return false;
    }
    for (const PlatformMessage& m : c_platformMessages) {
        if (m.prio != prio) {
            continue;
        }
        const std::string pattern =
            std::string(m.file) + ": " + m.function + "(%d) > " + colourOf(prio) + m.text + "\033[0m";
        if (matches(pattern.c_str(), line)) {
            return true;
        }
    }
    return false;
}

bool documentedStandardErrorLine(const char* line)
{
    for (const char* pattern : c_standardErrorMessages) {
        if (matches(pattern, line)) {
            return true;
        }
    }
    return false;
}

// The platform-log lines of one run, kept without allocating (allocation is
// what the shim fails): one record per line, its priority, whether the tag
// was the library's, the text and a NUL.
char g_logLines[1 << 17];
std::size_t g_logUsed;
bool g_logFull;

// A line shown in the figures: control characters written out.
std::string printable(const std::string& line)
{
    std::string out;
    for (const char c : line) {
        if (c == '\033') {
            out += "\\033";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

using ArmFn = void (*)(long, int);
using DisarmFn = long (*)();
using SiteFn = const char* (*)();

ArmFn g_arm;
DisarmFn g_disarm;
SiteFn g_site;

// Above this many calls only every step-th one is failed beyond the first
// c_sampleHead, so that a scenario stays within seconds.
constexpr long c_fullSweep = 600;
constexpr long c_sampleHead = 300;

UniqueFd daemonSocket()
{
    sockaddr_un address{AF_UNIX, {}};
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    UniqueFd s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!s || bind(s.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(s.get(), 64) != 0) {
        return UniqueFd();
    }
    return s;
}

// Every frame queued on the daemon's socket, concatenated.
std::string drain(const UniqueFd& daemon)
{
    std::string bytes;
    for (UniqueFd c; c.reset(accept4(daemon.get(), nullptr, nullptr, SOCK_CLOEXEC)), c;) {
        char buffer[4096];
        for (ssize_t n; (n = recv(c.get(), buffer, sizeof(buffer), 0)) > 0;) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        }
        bytes += '|';
    }
    return bytes;
}

// The file opened by the caller, for the descriptor entry point: opened
// before the faults are armed, as a caller holds it before the call.
int g_descriptor = -1;

int callOnce(const std::string& mode, const std::string& path)
{
    if (mode == "check") {
        return verifyFileWihtoutKey(path.c_str(), "inject");
    }
    if (mode == "descriptor") {
        return verifyFileDescriptor(g_descriptor, path.c_str(), "inject");
    }
    if (mode == "open") {
        return verifyOpenFile(g_descriptor, "inject", nullptr);
    }
    if (mode == "run") {
        int run = -1;
        const int answer = verifyOpenFileToRun(g_descriptor, "inject", 0, &run);
        const UniqueFd ran(run);
        return answer;
    }
    if (mode == "report") {
        return SendSecurityReport("inject", "SCRIPT", path.c_str(), "injected", 3);
    }
    // The classes are C++: exhausted memory reaches their caller as
    // std::bad_alloc, which a C++ caller takes as a refusal.
    try {
        BSContext context;
        return context.verifyFile(path, "inject") == BS_SIGNATURE_CORRECT ? 1 : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

struct RunResult {
    bool crashed = false;
    bool leaked = false;
    int answer = -1;
    long calls = 0;
    std::string site;
    long logLines = 0;
    std::vector<std::string> undocumented;
    std::string frames;
};

// Checks the lines of the run that has just ended: the recorded platform-log
// lines and standard error, held in `standardError`. Answers the number of
// lines and adds each undocumented one to `out`, one per line.
long checkLines(int standardError, std::vector<std::string>& out)
{
    long lines = 0;
    for (std::size_t at = 0; at < g_logUsed;) {
        const int prio = g_logLines[at];
        const bool libraryTag = g_logLines[at + 1] != 0;
        const char* line = g_logLines + at + 2;
        ++lines;
        if (!documentedPlatformLine(prio, libraryTag, line)) {
            out.push_back("platform log: " + printable(line));
        }
        at += 3 + std::strlen(line);
    }
    if (g_logFull) {
        out.emplace_back("platform log: more lines than the record holds");
    }
    std::string text;
    char buffer[4096];
    off_t offset = 0;
    for (ssize_t n; (n = pread(standardError, buffer, sizeof(buffer), offset)) > 0; offset += n) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        const std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        ++lines;
        if (end == std::string::npos || !documentedStandardErrorLine(line.c_str())) {
            out.push_back("standard error: " + printable(line));
        }
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

// One run in a child process: fail call `failAt` (0: none).
RunResult runChild(const std::string& mode, const std::string& path, long failAt, bool shortSend)
{
    int ends[2];
    if (pipe(ends) != 0) {
        std::abort();
    }
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        // Standard error goes to a file in memory, read back after the call.
        const UniqueFd standardError(memfd_create("inject-stderr", MFD_CLOEXEC));
        if (!standardError || dup2(standardError.get(), STDERR_FILENO) < 0) {
            _exit(4);
        }
        const UniqueFd daemon = daemonSocket();
        const bool opensFile = mode == "descriptor" || mode == "open" || mode == "run";
        const UniqueFd file(opensFile ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
        g_descriptor = file.get();
        const int before = openDescriptors();
        g_arm(failAt, shortSend ? 1 : 0);
        const int answer = callOnce(mode, path);
        const long calls = g_disarm();
        const int after = openDescriptors();
        std::vector<std::string> undocumented;
        const long lines = checkLines(standardError.get(), undocumented);
        const std::string frames = daemon ? drain(daemon) : std::string("no daemon");
        std::string out = std::to_string(answer) + "\n" + std::to_string(after > before ? 1 : 0) + "\n" +
                          std::to_string(calls) + "\n" + g_site() + "\n" + std::to_string(lines) + "\n" +
                          std::to_string(undocumented.size()) + "\n";
        for (const std::string& line : undocumented) {
            out += line + "\n";
        }
        out += frames;
        for (std::size_t done = 0; done < out.size();) {
            const ssize_t n = write(writeEnd.get(), out.data() + done, out.size() - done);
            if (n <= 0) {
                _exit(3);
            }
            done += static_cast<std::size_t>(n);
        }
        _exit(0);
    }
    writeEnd.reset();
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(readEnd.get(), buffer, sizeof(buffer))) > 0;) {
        out.append(buffer, static_cast<std::size_t>(n));
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
    RunResult result;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        result.crashed = true;
        return result;
    }
    std::size_t at = 0;
    const auto field = [&out, &at]() {
        const std::size_t end = out.find('\n', at);
        std::string value = out.substr(at, end == std::string::npos ? std::string::npos : end - at);
        at = end == std::string::npos ? out.size() : end + 1;
        return value;
    };
    result.answer = std::atoi(field().c_str());
    result.leaked = field() == "1";
    result.calls = std::atol(field().c_str());
    result.site = field();
    result.logLines = std::atol(field().c_str());
    for (long n = std::atol(field().c_str()); n > 0; --n) {
        result.undocumented.push_back(field());
    }
    result.frames = out.substr(at);
    return result;
}

}  // namespace

// The platform log: the test program's definition is found before the
// platform's library, so every line the library logs lands here.
extern "C" int __dlog_print(log_id_t, int prio, const char* tag, const char* fmt, ...)
{
    char line[8192];
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(line, sizeof(line), fmt, args);
    va_end(args);
    const std::size_t length = n < 0 ? 0 : std::strlen(line);
    if (g_logUsed + length + 3 > sizeof(g_logLines)) {
        g_logFull = true;
        return -1;
    }
    g_logLines[g_logUsed++] = static_cast<char>(prio);
    g_logLines[g_logUsed++] = tag != nullptr && std::strcmp(tag, "kzoluser") == 0 ? 1 : 0;
    std::memcpy(g_logLines + g_logUsed, line, length);
    g_logUsed += length;
    g_logLines[g_logUsed++] = '\0';
    return n;
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "usage: inject_driver NAME check|descriptor|report|verify PATH REFUSE\n");
        return 2;
    }
    const std::string name = argv[1], mode = argv[2], path = argv[3];
    const bool mustRefuse = std::string(argv[4]) == "1";
    g_arm = reinterpret_cast<ArmFn>(dlsym(RTLD_DEFAULT, "kzol_inject_arm"));
    g_disarm = reinterpret_cast<DisarmFn>(dlsym(RTLD_DEFAULT, "kzol_inject_disarm"));
    g_site = reinterpret_cast<SiteFn>(dlsym(RTLD_DEFAULT, "kzol_inject_site"));
    if (g_arm == nullptr || g_disarm == nullptr || g_site == nullptr) {
        std::fprintf(stderr, "inject_driver: the fault shim is not preloaded\n");
        return 2;
    }
    // The daemon's name is private to a network namespace of our own.
    (void)unshare(CLONE_NEWNET);

    const RunResult baseline = runChild(mode, path, 0, false);
    if (baseline.crashed) {
        std::printf("%s: the run without faults crashed\n", name.c_str());
        return 1;
    }
    const long total = baseline.calls;
    const long step = total <= c_fullSweep ? 1 : (total - c_sampleHead) / (c_fullSweep - c_sampleHead) + 1;
    long runs = 0, crashes = 0, leaks = 0, failOpen = 0, documented = 0, changedFrames = 0;
    long logLines = baseline.logLines, undocumentedLines = 0;
    const auto reportLines = [&name, &undocumentedLines](const RunResult& r, const std::string& run) {
        for (const std::string& line : r.undocumented) {
            ++undocumentedLines;
            std::printf("%s: %s wrote an undocumented line: %s\n", name.c_str(), run.c_str(), line.c_str());
        }
    };
    reportLines(baseline, "the run without faults");
    const bool failClosed = KZOL_FAIL_CLOSED != 0;
    for (long k = 1; k <= total + 1; k = k < c_sampleHead ? k + 1 : k + step) {
        const bool shortSend = k == total + 1;  // the last run: no failure, every send short
        const RunResult r = runChild(mode, path, shortSend ? 0 : k, shortSend);
        ++runs;
        if (r.crashed) {
            ++crashes;
            std::printf("%s: call %ld (%s) crashed the process\n", name.c_str(), k, r.site.c_str());
            continue;
        }
        if (r.leaked) {
            ++leaks;
            std::printf("%s: call %ld (%s) left a descriptor open\n", name.c_str(), k, r.site.c_str());
        }
        logLines += r.logLines;
        reportLines(r, shortSend ? std::string("the three-byte-send run")
                                 : "call " + std::to_string(k) + " (" + r.site + ")");
        if (mustRefuse && r.answer == 1) {
            const bool documentedStep = r.site.find(" in IsDTV") != std::string::npos ||
                                        r.site.find(" in checkFileIsInRWUser") != std::string::npos;
            if (!failClosed && documentedStep) {
                ++documented;
            } else {
                ++failOpen;
                std::printf("%s: call %ld (%s) let the file run\n", name.c_str(), k, r.site.c_str());
            }
        }
        // A run that delivered its reports delivered them unchanged.
        if (r.answer == baseline.answer && r.frames.size() == baseline.frames.size() && r.frames != baseline.frames) {
            ++changedFrames;
            std::printf("%s: call %ld (%s) changed a report frame\n", name.c_str(), k, r.site.c_str());
        }
        if (shortSend && r.frames != baseline.frames) {
            ++changedFrames;
            std::printf("%s: three-byte sends changed the frames\n", name.c_str());
        }
    }
    std::printf("%s: %ld calls, %ld runs%s, %ld crashes, %ld leaks, %ld fail-open, %ld at documented steps, "
                "%ld changed frames, %ld log lines, undocumented lines: %ld\n",
                name.c_str(), total, runs, step > 1 ? " (sampled)" : "", crashes, leaks, failOpen, documented,
                changedFrames, logLines, undocumentedLines);
    return crashes + leaks + failOpen + changedFrames + undocumentedLines == 0 ? 0 : 1;
}
