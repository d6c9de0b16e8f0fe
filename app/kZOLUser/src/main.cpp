// The library's exported entry points: the verification policy, the probes
// it needs from the device, the disable certificate on USB storage, and
// SendSecurityReport; and the library's static initialisation.
#include <cxxabi.h>
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

#include "bs_context.h"
#include "handles.h"
#include "kZOLUser.h"
#include "log.h"
#include "main.h"
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

// The policy: whether the file may run (1) or is refused (0). The signed
// content is read from `descriptor` when one is given, else from the file's
// real path; every message names the path and the exported verification call.
// A failure that would escape as an exception (such as exhausted memory)
// refuses the file: the gate fails closed, and no caller can take an exception.
// Not noexcept: the unwinding of a cancelled thread must pass through it, and
// from a noexcept function the rethrow below would end the process instead.
// `decision` (when given) learns which step decided and, when the signature
// was checked, the result.
const char* const c_entry = "verifyFileWihtoutKey";

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

int decide(const char* fileName, const char* caller, const int* descriptor, kzol_decision* decision)
try {
    const auto decided = [decision](int step, int result) { record(decision, step, result); };
    decided(KZOL_STEP_FAILURE, BS_ERROR);
    BSContext context;
    if (fileName == nullptr || access(fileName, F_OK) != 0) {
        KZOL_LOGE_IN(c_entry, "%s does not exist;", fileName != nullptr ? fileName : "(null)");
        decided(KZOL_STEP_MISSING, BS_ERROR);
        return 0;
    }
    const char* callerName = caller != nullptr ? caller : "NULL";

    char resolved[4097];
    std::memset(resolved, 0, sizeof(resolved));
    if (context.checkFileIsInRWUser(fileName, resolved) != 0) {
        // An existing file whose real path cannot be resolved (other than by
        // having gone) is, when the gate holds, checked by the name given:
        // it exists, so the name is shorter than the buffer.
        const bool unresolved = errno != 0 && errno != ENOENT;
        if (!unresolved || !c_failClosed) {
            decided(KZOL_STEP_OUTSIDE_AREAS, BS_ERROR);
            return 1;
        }
        std::memset(resolved, 0, sizeof(resolved));
        std::strncpy(resolved, fileName, sizeof(resolved) - 1);
    }
    if (!IsDTV()) {
        decided(KZOL_STEP_NOT_TELEVISION, BS_ERROR);
        return 1;
    }

    if (disabledByCertificate(context, callerName)) {
        decided(KZOL_STEP_DISABLE_CERTIFICATE, BS_ERROR);
        return 1;
    }

    SecureZoneContext zone(c_zonePath);
    if (!zone.isRootUID() && zone.isIsolatedContainer()) {
        decided(KZOL_STEP_ISOLATED_CONTAINER, BS_ERROR);
        return 1;
    }

    if (!isFileExists(resolved)) {
        KZOL_LOGE_IN(c_entry, "[zol][%s is not existed];", resolved);
    }
    const std::string realPath(resolved);
    const Result result = descriptor != nullptr ? context.verifyFile(*descriptor, realPath, callerName)
                                                : context.verifyFile(realPath, callerName);
    decided(KZOL_STEP_SIGNATURE, result);
    if (result == BS_SIGNATURE_CORRECT) {
        return 1;
    }
    if (!context.SendRequestNotification(realPath, callerName, result)) {
        KZOL_LOGE_IN(c_entry, "[zol][%s]! : \033[1;31mSendRequest Notification Error\033[0m", callerName);
    }
    return 0;
} catch (abi::__forced_unwind&) {
    throw;  // the thread is being cancelled: its unwinding must go on
} catch (...) {
    record(decision, KZOL_STEP_FAILURE, BS_ERROR);
    return 0;
}

}  // namespace

extern "C" int verifyFileWihtoutKey(const char* fileName, const char* caller)
{
    return decide(fileName, caller, nullptr, nullptr);
}

extern "C" int verifyFileDescriptor(int fd, const char* fileName, const char* caller)
{
    return decide(fileName, caller, &fd, nullptr);
}

// The same answer, with the step that decided it.
extern "C" int verifyFileExplained(const char* fileName, const char* caller, kzol_decision* decision)
{
    return decide(fileName, caller, nullptr, decision);
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
