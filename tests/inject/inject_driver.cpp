// Failure-injection driver: runs one scenario of the shipped library with the
// fault shim preloaded. It first counts the fallible calls the scenario makes,
// then, each in a process of its own, fails the k-th one for every k (or a
// sample, see below), and runs it once more with every send cut to three
// bytes; a mode that names several entry points sweeps each. For each run it
// checks: the process neither crashed nor aborted; it holds no more
// descriptors after the call than before; a file that must be refused was
// not answered 1 (in the default build the two documented fail-open steps are
// counted apart); the daemon received the same frames as without faults
// whenever the call delivered anything, and the three-byte sends changed
// none; every line the library wrote to the platform log or to standard
// error is a documented one.
//
//   inject_driver NAME check|descriptor|open|run|report|verify PATH REFUSE(0|1)
//
// Prints one line of figures per entry point and exits 0 when no check failed.
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <string>

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
    // Socket channel (its listening side, which logs too, serves no entry point).
    {DLOG_ERROR, "UnixSocket.cpp", "ConnectToHost", "connect() error ;"},
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

// A character of "%d" (`number`) or of "%i".
bool inClass(bool number, char c)
{
    const auto u = static_cast<unsigned char>(c);
    return number ? std::isdigit(u) != 0 : std::isalnum(u) != 0 || c == '_' || c == ':';
}

// Whether `text` matches `pattern` whole (see above).
bool matches(const char* pattern, const char* text)
{
    for (; *pattern != '\0'; ++pattern, ++text) {
        if (pattern[0] == '%' && pattern[1] == 's') {
            do {
                if (matches(pattern + 2, text)) {
                    return true;
                }
            } while (*text++ != '\0');
            return false;
        }
        if (pattern[0] == '%' && (pattern[1] == 'd' || pattern[1] == 'i')) {
            const bool number = pattern[1] == 'd';
            const char* const start = text + (number && *text == '-' ? 1 : 0);
            const char* end = start;
            while (inClass(number, *end)) {
                ++end;
            }
            return end != start && matches(pattern + 2, end);
        }
        const bool anyCharacter = pattern[0] == '%' && pattern[1] == 'c';
        if (*text == '\0' || (!anyCharacter && *pattern != *text)) {
            return false;
        }
        pattern += anyCharacter ? 1 : 0;
    }
    return *text == '\0';
}

// The colour of each priority's text, from DLOG_INFO to DLOG_ERROR.
const char* const c_colours[] = {"\033[36m", "\033[33m", "\033[31m"};

bool documentedPlatformLine(int prio, bool libraryTag, const char* line)
{
    return libraryTag && std::any_of(std::begin(c_platformMessages), std::end(c_platformMessages),
                                     [prio, line](const PlatformMessage& m) {
        const std::string pattern =
            std::string(m.file) + ": " + m.function + "(%d) > " + c_colours[m.prio - DLOG_INFO] + m.text + "\033[0m";
        return m.prio == prio && matches(pattern.c_str(), line);
           });
}

bool documentedStandardErrorLine(const char* line)
{
    return std::any_of(std::begin(c_standardErrorMessages), std::end(c_standardErrorMessages),
                       [line](const char* pattern) { return matches(pattern, line); });
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
        out += c == '\033' ? "\\033" : c == '\n' ? "\\n" : std::string(1, c);
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

// The entry points, by the mode that names a scenario. `opensFile`: the
// caller holds the file open before the call (opened before the faults are
// armed) and passes its descriptor.
struct EntryPoint {
    const char* mode;
    const char* name;
    bool opensFile;
    int (*call)(int fd, const std::string& path);
};

int runFromDescriptor(int fd, const std::string&)
{
    int run = -1;
    const int answer = verifyOpenFileToRun(fd, "inject", 0, &run);
    const UniqueFd ran(run);
    return answer;
}

// The classes are C++: exhausted memory reaches their caller as
// std::bad_alloc, which a C++ caller takes as a refusal.
int verifyWithTheClass(int, const std::string& path)
{
    try {
        BSContext context;
        return context.verifyFile(path, "inject") == BS_SIGNATURE_CORRECT ? 1 : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

const EntryPoint c_entryPoints[] = {
    {"check", "verifyFileWihtoutKey", false,
     [](int, const std::string& path) { return verifyFileWihtoutKey(path.c_str(), "inject"); }},
    {"descriptor", "verifyFileDescriptor", true,
     [](int fd, const std::string& path) { return verifyFileDescriptor(fd, path.c_str(), "inject"); }},
    {"open", "verifyOpenFile", true, [](int fd, const std::string&) { return verifyOpenFile(fd, "inject", nullptr); }},
    // For another process (the driver): its user IDs read from /proc.
    {"open", "verifyOpenFileForProcess", true,
     [](int fd, const std::string&) { return verifyOpenFileForProcess(fd, getppid(), "inject", 0, nullptr); }},
    {"run", "verifyOpenFileToRun", true, runFromDescriptor},
    {"report", "SendSecurityReport", false,
     [](int, const std::string& path) { return SendSecurityReport("inject", "SCRIPT", path.c_str(), "injected", 3); }},
    {"verify", "BSContext::verifyFile", false, verifyWithTheClass},
};

// The figures of one entry point's sweep, in memory shared with the runs'
// processes, which count into them (a run that crashes counts nothing). The
// run without faults leaves its answer and frames for the others to compare.
struct Figures {
    long calls;  // of the last run
    long leaks, failOpen, documented, changedFrames, logLines, undocumentedLines;
    int baselineAnswer;
    std::size_t baselineLength;
    char baselineFrames[1 << 16];
};
Figures* g_figures;

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

// Checks the lines of `run`, which has just ended: the recorded platform-log
// lines and standard error, held in `standardError`. Counts them, and prints
// and counts each undocumented one.
void checkLines(int standardError, const std::string& name, const std::string& run, Figures& f)
{
    const auto undocumented = [&name, &run, &f](const std::string& line) {
        ++f.undocumentedLines;
        std::printf("%s: %s wrote an undocumented line: %s\n", name.c_str(), run.c_str(), line.c_str());
    };
    for (std::size_t at = 0; at < g_logUsed;) {
        const int prio = g_logLines[at];
        const bool libraryTag = g_logLines[at + 1] != 0;
        const char* line = g_logLines + at + 2;
        ++f.logLines;
        if (!documentedPlatformLine(prio, libraryTag, line)) {
            undocumented("platform log: " + printable(line));
        }
        at += 3 + std::strlen(line);
    }
    if (g_logFull) {
        undocumented("platform log: more lines than the record holds");
    }
    // Read from the start through a name of its own; a last line without its
    // line feed ends the stream (eof) and is undocumented.
    std::ifstream lines("/proc/self/fd/" + std::to_string(standardError));
    for (std::string line; std::getline(lines, line);) {
        ++f.logLines;
        if (lines.eof() || !documentedStandardErrorLine(line.c_str())) {
            undocumented("standard error: " + printable(line));
        }
    }
}

// How a run is named in the figures: by the call it failed and where.
std::string runName(long failAt, bool shortSend, const std::string& site)
{
    if (shortSend) {
        return "the three-byte-send run";
    }
    return failAt == 0 ? "the run without faults" : "call " + std::to_string(failAt) + " (" + site + ")";
}

// One run, in a child process: fails call `failAt` (0: none), or with
// `shortSend` cuts every send to three bytes; then checks what the call did,
// prints each fault found and counts into the figures. The run with neither
// sets the baseline.
void runChild(const std::string& name, const EntryPoint& entry, const std::string& path, long failAt, bool shortSend,
              bool mustRefuse)
{
    // Standard error goes to a file in memory, read back after the call.
    const UniqueFd standardError(memfd_create("inject-stderr", MFD_CLOEXEC));
    if (!standardError || dup2(standardError.get(), STDERR_FILENO) < 0) {
        _exit(4);
    }
    const UniqueFd daemon = daemonSocket();
    const UniqueFd file(entry.opensFile ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
    const int before = openDescriptors();
    g_arm(failAt, shortSend ? 1 : 0);
    const int answer = entry.call(file.get(), path);
    Figures& f = *g_figures;
    f.calls = g_disarm();
    const int after = openDescriptors();
    const bool baseline = failAt == 0 && !shortSend;
    const std::string site = g_site();
    const std::string run = runName(failAt, shortSend, site);
    checkLines(standardError.get(), name, run, f);
    if (after > before) {
        ++f.leaks;
        std::printf("%s: %s left a descriptor open\n", name.c_str(), run.c_str());
    }
    if (mustRefuse && answer == 1) {
        const bool documentedStep =
            site.find(" in IsDTV") != std::string::npos || site.find(" in checkFileIsInRWUser") != std::string::npos;
        if (KZOL_FAIL_CLOSED == 0 && documentedStep) {
            ++f.documented;
        } else {
            ++f.failOpen;
            std::printf("%s: %s let the file run\n", name.c_str(), run.c_str());
        }
    }
    const std::string frames = daemon ? drain(daemon) : std::string("no daemon");
    if (baseline && frames.size() <= sizeof(f.baselineFrames)) {
        f.baselineAnswer = answer;
        f.baselineLength = frames.size();
        std::memcpy(f.baselineFrames, frames.data(), frames.size());
    }
    // A run that delivered its reports delivered them unchanged, and short
    // sends change nothing.
    const std::string expected(f.baselineFrames, f.baselineLength);
    if (frames != expected &&
        (shortSend || baseline || (answer == f.baselineAnswer && frames.size() == expected.size()))) {
        ++f.changedFrames;
        std::printf("%s: %s changed the report frames\n", name.c_str(), run.c_str());
    }
    std::fflush(stdout);
    _exit(0);
}

// Sweeps one entry point; answers whether every run passed.
bool sweep(const std::string& scenario, const EntryPoint& entry, const std::string& path, bool mustRefuse)
{
    const std::string name = scenario + " (" + entry.name + ")";
    *g_figures = Figures{};
    long runs = 0, crashes = 0;
    const auto runOnce = [&](long failAt, bool shortSend) {
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            runChild(name, entry, path, failAt, shortSend, mustRefuse);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++crashes;
            std::printf("%s: %s crashed the process\n", name.c_str(), runName(failAt, shortSend, "").c_str());
        }
    };
    runOnce(0, false);
    const long total = g_figures->calls;
    const long step = total <= c_fullSweep ? 1 : (total - c_sampleHead) / (c_fullSweep - c_sampleHead) + 1;
    for (long k = 1; k <= total; k = k < c_sampleHead ? k + 1 : k + step) {
        runOnce(k, false);
        ++runs;
    }
    // Last, whatever the sampling: no call fails, and every send is short.
    runOnce(0, true);
    ++runs;
    const Figures& f = *g_figures;
    std::printf("%s: %ld calls, %ld runs%s, %ld crashes, %ld leaks, %ld fail-open, %ld at documented steps, "
                "%ld changed frames, %ld log lines, undocumented lines: %ld\n",
                name.c_str(), total, runs, step > 1 ? " (sampled)" : "", crashes, f.leaks, f.failOpen, f.documented,
                f.changedFrames, f.logLines, f.undocumentedLines);
    return crashes + f.leaks + f.failOpen + f.changedFrames + f.undocumentedLines == 0;
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
        std::fprintf(stderr, "usage: inject_driver NAME check|descriptor|open|run|report|verify PATH REFUSE\n");
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
    void* const shared = mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("inject_driver: mmap");
        return 2;
    }
    g_figures = static_cast<Figures*>(shared);
    // The daemon's name is private to a network namespace of our own.
    (void)unshare(CLONE_NEWNET);
    bool passed = true, known = false;
    for (const EntryPoint& entry : c_entryPoints) {
        if (mode == entry.mode) {
            known = true;
            passed = sweep(name, entry, path, mustRefuse) && passed;
        }
    }
    if (!known) {
        std::fprintf(stderr, "inject_driver: no entry point for the mode %s\n", mode.c_str());
    }
    return known && passed ? 0 : 1;
}
