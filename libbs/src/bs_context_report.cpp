// BSContext, continued: the composition of a report and its sending to the
// security daemon, one connection per report.
//
// The class's log lines name its unit, whichever of its files they come from.
#define KZOL_LOG_UNIT "bs_context.cpp"  // NOLINT(cppcoreguidelines-macro-usage)

#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "UnixSocket.h"
#include "bs_context.h"
#include "log.h"

namespace {

// Report message keys and fixed values.
const char c_taskTagTaskName[] = "TaskName";
const char c_taskUserBlockMsg[] = "UserBlockMsg";
const char c_taskTagState[] = "State";
const char c_taskStateShowNoti[] = "ShowNoti";
const char c_taskReportFileSend[] = "Action/FileSend";
const char c_taskTagReportSeq[] = "Report/ReportSeq";
const char c_taskTagCaller[] = "Report/Caller";
const char c_taskTagFileType[] = "Report/FileType";
const char c_taskTagDescription[] = "Report/Decription";
const char c_taskTagPath[] = "Report/Path";
const char c_daemonNameUserMsg[] = "SfDaemon/UserMsg";

const char c_fileTypeScript[] = "SCRIPT";

// Longest value of each text member, in bytes.
constexpr std::size_t c_callerLimit = 16;
constexpr std::size_t c_fileTypeLimit = 16;
constexpr std::size_t c_descriptionLimit = 1024;
constexpr std::size_t c_pathLimit = 256;

// The first `limit` bytes of a text; an absent text is empty.
std::string capped(const char* text, std::size_t limit)
{
    return text == nullptr ? std::string() : std::string(text, strnlen(text, limit));
}

// Time of day in UTC with microseconds, HHMMSS then the microseconds without
// leading zeros: the report sequence.
char* GetUsSysTime(char* buffer, int size)
{
    if (buffer == nullptr || size <= 0) {
        return buffer;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[48];
    const int length = std::snprintf(text, sizeof(text), "%02d%02d%02d%ld", utc.tm_hour, utc.tm_min, utc.tm_sec,
                                     static_cast<long>(now.tv_nsec / 1000));
    const std::size_t kept =
        std::min<std::size_t>(length > 0 ? static_cast<std::size_t>(length) : 0, static_cast<std::size_t>(size - 1));
    std::memcpy(buffer, text, kept);
    buffer[kept] = '\0';
    buffer[size - 1] = '\0';
    return buffer;
}

// The members that every report carries, with the moment it is built.
void fillCommon(Json::Value& message, int kind)
{
    message[c_taskTagTaskName] = c_taskUserBlockMsg;
    message[c_taskTagState] = c_taskStateShowNoti;
    message[c_taskReportFileSend] = kind;
    char sequence[20] = {};
    message[c_taskTagReportSeq] = GetUsSysTime(sequence, sizeof(sequence));
}

// When the gate holds (the KZOL_FAIL_CLOSED build), a report waits for the
// daemon no longer than this, and goes only to a listener of the daemon's
// user: whoever took the name first neither holds the caller nor reads the
// reports.
constexpr bool c_boundedReports = KZOL_FAIL_CLOSED != 0;
constexpr unsigned int c_reportTimeoutMs = KZOL_REPORT_TIMEOUT_MS;
constexpr uid_t c_daemonUid = KZOL_DAEMON_UID;

bool connectToDaemon(UnixSocket& socket, const char* function)
{
    const int connected = c_boundedReports ? socket.ConnectToHost(c_daemonNameUserMsg, c_reportTimeoutMs)
                                           : socket.ConnectToHost(c_daemonNameUserMsg);
    if (connected != 0) {
        KZOL_LOGE_IN(function, "Failed to connect to vexmd;");
        socket.Disconnect();
        return false;
    }
    uid_t uid = 0;
    if (c_boundedReports && (socket.PeerUserId(uid) != 0 || uid != c_daemonUid)) {
        KZOL_LOGE_IN(function, "Report not delivered: the listener is not the daemon's user %u;",
                     static_cast<unsigned int>(c_daemonUid));
        socket.Disconnect();
        return false;
    }
    return true;
}

// Sends one message and closes the connection. A lost message is logged but
// only a failed close makes the answer false.
bool deliver(UnixSocket& socket, const Json::Value& message, const char* function)
{
    const Json::StreamWriterBuilder builder;
    const std::string text = Json::writeString(builder, message);
    if (!socket.SendString(text)) {
        KZOL_LOGE_IN(function, "Failed to send request [%s];", text.c_str());
    }
    if (socket.IsConnected() && socket.Disconnect() != 0) {
        KZOL_LOGE_IN(function, "Failed to disconnect;");
        return false;
    }
    return true;
}

}  // namespace

std::string BSContext::ComposeDescription(const char* subject, const char* object, Result result) const
{
    // A report names the refusals; 5 is not one, and carries no name.
    const char* name = result == BS_SIGNATURE_CORRECT || resultName(result) == nullptr ? "" : resultName(result);
    std::string description;
    description.reserve(64 + (subject != nullptr ? std::strlen(subject) : 0) +
                        (object != nullptr ? std::strlen(object) : 0));
    description += "ver:\"";
    description += "1\",";
    description += "subject:\"";
    description += subject != nullptr ? subject : "";
    description += "\",";
    description += "object:\"";
    description += object != nullptr ? object : "";
    description += "\",";
    description += "result:\"";
    description += name;
    description += "\",";
    return description;
}

bool BSContext::SendRequestNotification(const std::string& path, const char* caller, Result result) const
{
    UnixSocket socket;
    if (!connectToDaemon(socket, __func__)) {
        return false;
    }
    Json::Value message;
    fillCommon(message, 1);
    message[c_taskTagFileType] = c_fileTypeScript;
    message[c_taskTagDescription] = ComposeDescription(path.c_str(), caller, result);
    message[c_taskTagCaller] = capped(caller, c_callerLimit);
    message[c_taskTagPath] = capped(path.c_str(), c_pathLimit);
    return deliver(socket, message, __func__);
}

bool BSContext::SendRequestNotification(const char* caller, const char* fileType, const char* path,
                                        const char* description, int kind) const
{
    UnixSocket socket;
    if (!connectToDaemon(socket, __func__)) {
        return false;
    }
    Json::Value message;
    fillCommon(message, kind);
    message[c_taskTagCaller] = capped(caller, c_callerLimit);
    message[c_taskTagFileType] = capped(fileType, c_fileTypeLimit);
    message[c_taskTagDescription] = capped(description, c_descriptionLimit);
    char resolved[4097] = {};
    const bool isResolved = path != nullptr && realpath(path, resolved) != nullptr;
    message[c_taskTagPath] = capped(isResolved ? resolved : path, c_pathLimit);
    return deliver(socket, message, __func__);
}
