// The library's exported entry points and its static initialisation.
#include <string>

#include "bs_context.h"
#include "log.h"
#include "string_utils.h"

// The library's one static initialiser builds, in this order, the base64
// alphabet and the path of the last disable certificate found; they are
// destroyed in the reverse order when the library is unloaded.
const std::string base64_chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static std::string USBZOLPath;

namespace {

// Report kinds of SendSecurityReport: the whole value 0 is a log report; bit 0
// asks for a file report, bit 1 for a data report.
constexpr int c_logReport = 0;
constexpr int c_fileReport = 1;
constexpr int c_dataReport = 2;

const char* shown(const char* text)
{
    return text != nullptr ? text : "(null)";
}

int sendSecurityReport(const char* caller, const char* fileType, const char* path, const char* description,
                       int type)
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
    if (type & 1) {
        request(c_fileReport, "FileReport");
    }
    if (type & 2) {
        request(c_dataReport, "DataReport");
    }
    return result;
}

}  // namespace

// Sends a platform component's own security report: 0 when every requested
// message was handed over, 1 when one failed. A failure that would escape as
// an exception (such as exhausted memory) answers 1: the caller cannot take
// an exception, and the report was not delivered.
extern "C" int SendSecurityReport(const char* caller, const char* fileType, const char* path,
                                  const char* description, int type)
{
    try {
        return sendSecurityReport(caller, fileType, path, description, type);
    } catch (...) {
        return 1;
    }
}

extern "C" int main()
{
    return 0;
}
