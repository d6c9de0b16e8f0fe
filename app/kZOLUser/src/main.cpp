// The library's exported entry points: the verification policy, the probes
// it needs from the device, the disable certificate on USB storage, and
// SendSecurityReport; and the library's static initialisation.
#include <cxxabi.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <usb_device.h>
#include <vconf.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>

#include "areas.h"
#include "bs_context.h"
#include "handles.h"
#include "kZOLUser.h"
#include "log.h"
#include "main.h"
#include "open_file.h"
#include "securezone_context.h"
#include "signature.h"
#include "string_utils.h"

// The library's one static initialiser builds, in this order, the base64
// alphabet and the path of the last disable certificate found; they are
// destroyed in the reverse order when the library is unloaded.
// NOLINTNEXTLINE(cert-err58-cpp): the exported alphabet is a std::string built by static initialisation
const std::string base64_chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): the certificate path kept for the policy
static std::string USBZOLPath;

namespace {

const char c_modulesPath[] = "/proc/modules";
const char c_zonePath[] = "/proc/self/zone";
const char c_micomModule[] = "micom";
const char c_certificateName[] = "RTZOLOFF.cer";
const char c_duidKey[] = "db/comss/hwduid";
// The real-path buffer of a call: PATH_MAX and a terminating zero.
constexpr std::size_t c_resolvedSize = 4097;

// Whether the two policy steps that the described policy lets fail open hold
// the gate instead (the KZOL_FAIL_CLOSED build): an existing file whose real
// path cannot be resolved is checked by the path as given, and a
// /proc/modules that exists but cannot be read makes a television.
constexpr bool c_failClosed = KZOL_FAIL_CLOSED != 0;

// Finding the certificate and reading its path back are one step: two calls
// in that step at once would otherwise hand each other's path on.
std::mutex g_certificateMutex;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables): a lock is never const

struct StorageSearch {
    std::string path;
    bool found;
};

// One attached device: the last device holding a certificate at its root
// supplies the path; a device without a mount path clears `found`.
void inspectStorage(usb_device_s* device, StorageSearch& search)
{
    const char* mountPath = usb_device_get_mountpath(device);
    if (mountPath == nullptr) {
        search.found = false;
        return;
    }
    std::string candidate = std::string(mountPath) + "/" + c_certificateName;
    if (access(candidate.c_str(), F_OK) == 0) {
        KZOL_LOGI_IN("handleStorageCallback", "Find USBZOLPath : %s", candidate.c_str());
        search.path = std::move(candidate);
        search.found = true;
    }
}

// Called from inside the USB service's C code, which no exception may cross:
// a device whose path cannot be built (memory is short) counts as holding no
// certificate, which keeps the check on.
void handleStorageCallback(usb_device_s* device, void* userData) noexcept
{
    try {
        inspectStorage(device, *static_cast<StorageSearch*>(userData));
    } catch (...) {  // NOLINT(bugprone-empty-catch): the device is skipped, as one without a certificate
    }
}

bool findCertificateLocked()
{
    StorageSearch search{std::string(), false};
    // The walk runs in the platform's C code, through which a cancellation
    // could not unwind: it is acted on after the walk instead.
    std::optional<CancellationHeldOff> heldOff(std::in_place);
    if (usb_device_init() != 0) {
        heldOff.reset();
        KZOL_LOGW_IN("FindZOLDiableFile", "No connected usb_mass_storage");
        return false;
    }
    const int walk = usb_mass_storage_foreach(handleStorageCallback, &search);
    usb_device_fini();
    heldOff.reset();
    if ((search.found || walk == 0) && !search.path.empty()) {
        USBZOLPath = search.path;
        return true;
    }
    return false;
}

// The policy's certificate step: finds a certificate and copies its path out.
bool findCertificate(std::string& path)
{
    const std::lock_guard<std::mutex> lock(g_certificateMutex);
    if (!findCertificateLocked()) {
        return false;
    }
    path = USBZOLPath;
    return true;
}

// Report kinds of SendSecurityReport: the whole value 0 is a log report; bit 0
// asks for a file report, bit 1 for a data report.
constexpr int c_logReport = 0;
constexpr int c_fileReport = 1;
constexpr int c_dataReport = 2;

const char* shown(const char* text)
{
    return text != nullptr ? text : "(null)";
}

int sendSecurityReport(const char* caller, const char* fileType, const char* path, const char* description, int type)
{
    KZOL_LOGI_IN("SendSecurityReport", "Start Send Report");
    const BSContext context;
    int result = 0;
    const auto request = [&](int kind, const char* kindName) {
        KZOL_LOGI_IN("SendSecurityReport", "[zol][%s]! : \033[1;33mSendRequest [%s]\033[0m", shown(caller), kindName);
        if (!context.SendRequestNotification(caller, fileType, path, description, kind)) {
            KZOL_LOGE_IN("SendSecurityReport", "[zol][%s]! : \033[1;31mSendRequest Notification Error\033[0m",
                         shown(caller));
            result = 1;
        }
    };
    if (type == 0) {
        request(c_logReport, "LogReport");
        return result;
    }
    if ((type & 1) != 0) {
        request(c_fileReport, "FileReport");
    }
    if ((type & 2) != 0) {
        request(c_dataReport, "DataReport");
    }
    return result;
}

}  // namespace

// Sends a platform component's own security report: 0 when every requested
// message was handed over, 1 when one failed. A failure that would escape as
// an exception (such as exhausted memory) answers 1: the caller cannot take
// an exception, and the report was not delivered.
extern "C" int SendSecurityReport(const char* caller, const char* fileType, const char* path, const char* description,
                                  int type)
{
    try {
        return sendSecurityReport(caller, fileType, path, description, type);
    } catch (abi::__forced_unwind&) {
        throw;  // the thread is being cancelled: its unwinding must go on
    } catch (...) {
        return 1;
    }
}

bool IsDTV()
{
    const FilePtr modules(std::fopen(c_modulesPath, "r"));
    if (modules == nullptr) {
        const bool unreadable = errno != ENOENT;
        KZOL_LOGI("[zol] /proc/modules is not exited");
        return unreadable && c_failClosed;
    }
    // Pieces of at most five characters from the start of each line: a module
    // whose name begins with "micom" is found.
    char piece[6];
    while (std::fgets(piece, sizeof(piece), modules.get()) != nullptr) {
        if (std::strstr(piece, c_micomModule) != nullptr) {
            return true;
        }
    }
    return std::ferror(modules.get()) != 0 && c_failClosed;
}

bool isFileExists(const char* path)
{
    // Opened as the verification will open it: a FIFO or a device node is
    // answered at once instead of waiting on its other end.
    const UniqueFd fd(path != nullptr ? openForReading(path) : -1);
    if (fd) {
        return true;
    }
    const int error = path != nullptr ? errno : EINVAL;
    char buffer[1024];
    (void)std::fprintf(stderr, "\033[1;31m[zol][%s:%s][%d];\033[0m\n", path != nullptr ? path : "(null)",
                       strerror_r(error, buffer, sizeof(buffer)), error);
    return false;
}

bool FindZOLDiableFile()
{
    const std::lock_guard<std::mutex> lock(g_certificateMutex);
    return findCertificateLocked();
}

std::string GetDUID()
{
    // No value under the key is an empty identifier.
    const MallocPtr<char> value(vconf_get_str(c_duidKey));
    std::string duid = value != nullptr ? value.get() : "";
    if (duid.empty()) {
        KZOL_LOGE("Hwduid get failed;");
    }
    return duid;
}

namespace {

// The policy: whether the file may run (1) or is refused (0). A call asks
// about a file by name (the described entry points; the content may come
// from a descriptor instead, as for verifyFileDescriptor), or about an open
// file, which then decides every step: its location, its content and, when
// given, the process that runs it. Every message names the file and the
// exported verification call. A failure that would escape as an exception
// (such as exhausted memory) refuses the file: the gate fails closed, and no
// caller can take an exception. Not noexcept: the unwinding of a cancelled
// thread must pass through it, and from a noexcept function the rethrow below
// would end the process instead. `decision` (when given) learns which step
// decided and, when the signature was checked, the result.
const char* const c_entry = "verifyFileWihtoutKey";

// What one call asks about.
struct Request {
    const char* fileName = nullptr;  // by name
    const int* contentFd = nullptr;  // by name, the content read from here
    bool byDescriptor = false;       // the open file `fd` decides every step
    int fd = -1;
    pid_t pid = 0;               // the process that runs the file; 0: this one
    bool reportLater = false;    // a refusal is reported by the caller
    bool keepKeys = false;       // the built-in keys parsed once per process
    UniqueFd* sealed = nullptr;  // the content verified in a sealed copy, kept here
    unsigned long long maxCopy = 0;
    int copyError = 0;  // why the sealed copy could not be made
};

// The largest file that a launcher's sealed copy takes by default.
constexpr unsigned long long c_defaultMaxCopy = 64ULL << 20U;

void record(kzol_decision* decision, int step, int result)
{
    if (decision != nullptr) {
        decision->step = step;
        decision->result = result;
    }
}

// The certificate step: true when a disable certificate for this device is
// attached.
bool disabledByCertificate(BSContext& context, const char* callerName)
{
    std::string certificate;
    if (!findCertificate(certificate)) {
        return false;
    }
    const std::string duid = GetDUID();
    if (context.verifyFileWithDeviceId(certificate, duid, callerName) != BS_SIGNATURE_CORRECT) {
        return false;
    }
    KZOL_LOGI_IN(c_entry, "[zol][%s] : \033[1;35mDisable Script ZOL\033[0m", callerName);
    return true;
}

enum class Where { missing, outside, inside };

// Whether the real path lies outside the areas, or in an excluded directory
// that counts: when the gate holds, only one where no other user than root
// can have made that directory or put the file (`file`, or the file that the
// path names when null) there.
bool outsideAreas(const char* realPath, const struct stat* file)
{
    const areas::Location location = areas::locate(realPath);
    if (location.place != areas::Place::excluded || !c_failClosed) {
        return location.place != areas::Place::inside;
    }
    struct stat named {};
    if (file == nullptr && stat(realPath, &named) != 0) {
        return false;
    }
    return open_file::placedByRoot(realPath, location.areaLength, file != nullptr ? *file : named);
}

// The existence and area steps by name; `resolved` gets the real path.
Where whereNamed(BSContext& context, const char* fileName, char* resolved)
{
    if (fileName == nullptr || access(fileName, F_OK) != 0) {
        KZOL_LOGE_IN(c_entry, "%s does not exist;", fileName != nullptr ? fileName : "(null)");
        return Where::missing;
    }
    if (context.checkFileIsInRWUser(fileName, resolved) == 0) {
        return Where::inside;
    }
    if (errno != 0) {
        // An existing file whose real path cannot be resolved is, when the
        // gate holds, checked by the name given: it exists, so the name is
        // shorter than the buffer.
        if (!c_failClosed) {
            return Where::outside;
        }
        std::memset(resolved, 0, c_resolvedSize);
        std::strncpy(resolved, fileName, c_resolvedSize - 1);
        return Where::inside;
    }
    return outsideAreas(resolved, nullptr) ? Where::outside : Where::inside;
}

// The same steps for an open file: its location is the kernel's path of it,
// confirmed by device and inode; a location in doubt is checked as in an area.
Where whereOpen(int fd, char* resolved)
{
    struct stat file {};
    std::string path;
    const bool located = fstat(fd, &file) == 0 && open_file::locate(fd, file, path);
    std::strncpy(resolved, path.c_str(), c_resolvedSize - 1);
    if (path.empty()) {
        KZOL_LOGE_IN(c_entry, "%s does not exist;", ("/proc/self/fd/" + std::to_string(fd)).c_str());
        return Where::missing;
    }
    if (!located) {
        return Where::inside;
    }
    return outsideAreas(resolved, &file) ? Where::outside : Where::inside;
}

// Whether process `pid` runs with a real or effective user ID of 0; a process
// whose IDs cannot be read counts as root, which takes no exemption.
bool processIsRoot(pid_t pid)
{
    const std::string statusPath = "/proc/" + std::to_string(pid) + "/status";
    const FilePtr status(std::fopen(statusPath.c_str(), "r"));
    char line[256];
    while (status != nullptr && std::fgets(line, sizeof(line), status.get()) != nullptr) {
        if (std::strncmp(line, "Uid:", 4) != 0) {
            continue;
        }
        // "Uid:" and the real, effective, saved and file-system user IDs.
        char* end = nullptr;
        errno = 0;
        const unsigned long real = std::strtoul(line + 4, &end, 10);
        const char* const afterReal = end;
        const unsigned long effective = std::strtoul(afterReal, &end, 10);
        if (errno != 0 || end == afterReal || afterReal == line + 4) {
            return true;
        }
        return real == 0 || effective == 0;
    }
    return true;
}

// The container step for the process that runs the file.
bool exemptAsContainer(pid_t pid)
{
    if (pid == 0 || pid == getpid()) {
        SecureZoneContext zone(c_zonePath);
        return !zone.isRootUID() && zone.isIsolatedContainer();
    }
    if (processIsRoot(pid)) {
        return false;
    }
    const std::string zonePath = "/proc/" + std::to_string(pid) + "/zone";
    SecureZoneContext zone(zonePath.c_str());
    return zone.isIsolatedContainer();
}

bool readableDescriptor(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_PATH) == 0 && (flags & O_ACCMODE) != O_WRONLY;
}

Result verifyContent(BSContext& context, Request& request, const std::string& realPath, const char* callerName)
{
    if (request.sealed != nullptr) {
        *request.sealed = open_file::sealedCopy(request.fd, request.maxCopy);
        request.copyError = *request.sealed ? 0 : errno;
        return context.verifyFile(request.sealed->get(), realPath, callerName);
    }
    if (request.byDescriptor) {
        return context.verifyFile(request.fd, realPath, callerName);
    }
    return request.contentFd != nullptr ? context.verifyFile(*request.contentFd, realPath, callerName)
                                        : context.verifyFile(realPath, callerName);
}

int decide(Request& request, const char* caller, kzol_decision* decision)
try {
    const auto decided = [decision](int step, int result) { record(decision, step, result); };
    decided(KZOL_STEP_FAILURE, BS_ERROR);
    BSContext context;
    context.keepKeys(request.keepKeys);
    char resolved[c_resolvedSize];
    std::memset(resolved, 0, sizeof(resolved));
    const Where where =
        request.byDescriptor ? whereOpen(request.fd, resolved) : whereNamed(context, request.fileName, resolved);
    if (where == Where::missing) {
        decided(KZOL_STEP_MISSING, BS_ERROR);
        return 0;
    }
    const char* callerName = caller != nullptr ? caller : "NULL";
    if (where == Where::outside) {
        decided(KZOL_STEP_OUTSIDE_AREAS, BS_ERROR);
        return 1;
    }
    if (!IsDTV()) {
        decided(KZOL_STEP_NOT_TELEVISION, BS_ERROR);
        return 1;
    }

    if (disabledByCertificate(context, callerName)) {
        decided(KZOL_STEP_DISABLE_CERTIFICATE, BS_ERROR);
        return 1;
    }

    if (exemptAsContainer(request.pid)) {
        decided(KZOL_STEP_ISOLATED_CONTAINER, BS_ERROR);
        return 1;
    }

    if (request.byDescriptor ? !readableDescriptor(request.fd) : !isFileExists(resolved)) {
        KZOL_LOGE_IN(c_entry, "[zol][%s is not existed];", resolved);
    }
    const std::string realPath(resolved);
    const Result result = verifyContent(context, request, realPath, callerName);
    decided(KZOL_STEP_SIGNATURE, result);
    if (result == BS_SIGNATURE_CORRECT) {
        return 1;
    }
    if (!request.reportLater && !context.SendRequestNotification(realPath, callerName, result)) {
        KZOL_LOGE_IN(c_entry, "[zol][%s]! : \033[1;31mSendRequest Notification Error\033[0m", callerName);
    }
    return 0;
} catch (abi::__forced_unwind&) {
    throw;  // the thread is being cancelled: its unwinding must go on
} catch (...) {
    record(decision, KZOL_STEP_FAILURE, BS_ERROR);
    return 0;
}

Request named(const char* fileName)
{
    Request request;
    request.fileName = fileName;
    return request;
}

Request opened(int fd)
{
    Request request;
    request.byDescriptor = true;
    request.fd = fd;
    return request;
}

int reportRefusalOf(int fd, const char* caller, int result)
try {
    const char* callerName = caller != nullptr ? caller : "NULL";
    struct stat file {};
    std::string path;
    (void)fstat(fd, &file);
    (void)open_file::locate(fd, file, path);
    const BSContext context;
    if (context.SendRequestNotification(path, callerName, static_cast<Result>(result))) {
        return 1;
    }
    KZOL_LOGE_IN(c_entry, "[zol][%s]! : \033[1;31mSendRequest Notification Error\033[0m", callerName);
    return 0;
} catch (abi::__forced_unwind&) {
    throw;
} catch (...) {
    return 0;
}

// The flag of execveat that only asks whether the file may be executed.
constexpr int c_execveCheck = 0x10000;

// The kernel's answer for executing the open file, where the kernel gives one
// (Linux 6.14 on): true unless it refuses. An older kernel rejects the
// unknown flag with EINVAL before it looks at the file, and nothing runs.
bool kernelAllowsExecution(int fd, const char* callerName)
{
    char* const none[] = {nullptr};
    if (syscall(SYS_execveat, fd, "", none, none, AT_EMPTY_PATH | c_execveCheck) == 0 || errno == EINVAL ||
        errno == ENOSYS) {
        return true;
    }
    char buffer[128];
    KZOL_LOGE_IN(c_entry, "[zol][%s]! : \033[1;31mExecution refused by the kernel [ fd : %d : %s ]\033[0m", callerName,
                 fd, strerror_r(errno, buffer, sizeof(buffer)));
    return false;
}

}  // namespace

extern "C" int verifyFileWihtoutKey(const char* fileName, const char* caller)
{
    Request request = named(fileName);
    return decide(request, caller, nullptr);
}

extern "C" int verifyFileDescriptor(int fd, const char* fileName, const char* caller)
{
    Request request = named(fileName);
    request.contentFd = &fd;
    return decide(request, caller, nullptr);
}

// The same answer, with the step that decided it.
extern "C" int verifyFileExplained(const char* fileName, const char* caller, kzol_decision* decision)
{
    Request request = named(fileName);
    return decide(request, caller, decision);
}

extern "C" int verifyOpenFile(int fd, const char* caller, kzol_decision* decision)
{
    Request request = opened(fd);
    return decide(request, caller, decision);
}

extern "C" int verifyOpenFileForProcess(int fd, int pid, const char* caller, int flags, kzol_decision* decision)
{
    Request request = opened(fd);
    request.pid = pid;
    request.reportLater = (flags & KZOL_REPORT_LATER) != 0;
    request.keepKeys = (flags & KZOL_KEEP_KEYS) != 0;
    return decide(request, caller, decision);
}

extern "C" int verifyOpenFileToRun(int fd, const char* caller, unsigned long long maxBytes, int* runFd)
{
    if (runFd != nullptr) {
        *runFd = -1;
    }
    UniqueFd sealed;
    Request request = opened(fd);
    request.sealed = &sealed;
    request.maxCopy = maxBytes != 0 ? maxBytes : c_defaultMaxCopy;
    kzol_decision decision{};
    if (decide(request, caller, &decision) != 1) {
        errno = request.copyError != 0 ? request.copyError : errno;
        return 0;
    }
    if (runFd == nullptr) {
        return 1;
    }
    // Before the signature step the file's content decided nothing: the file
    // itself may run. After it, exactly the verified copy may.
    UniqueFd run(decision.step == KZOL_STEP_SIGNATURE ? sealed.release() : fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!run) {
        return 0;
    }
    *runFd = run.release();
    return 1;
}

extern "C" int reportRefusal(int fd, const char* caller, int result)
{
    return reportRefusalOf(fd, caller, result);
}

extern "C" int verifyScriptDescriptor(int fd, const char* caller)
{
    if (!kernelAllowsExecution(fd, caller != nullptr ? caller : "NULL")) {
        return 0;
    }
    return verifyOpenFile(fd, caller, nullptr);
}

// The first argument is never read.
extern "C" int verifyFile(void* unused, const char* fileName, const char* caller)
{
    (void)unused;
    return verifyFileWihtoutKey(fileName, caller);
}

extern "C" const char* kZOLUserVersion()
{
    return KZOL_VERSION;
}

extern "C" int main()
{
    return 0;
}
