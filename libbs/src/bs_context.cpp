#include "bs_context.h"

#include <json/json.h>

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "UnixSocket.h"
#include "log.h"
#include "public_keys.h"
#include "verify_context.h"

namespace {

constexpr unsigned int c_readChunk = 16384;

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

// User-writable areas, then the directories below them that are not; both are
// matched as plain prefixes, the second against the rest after the area.
constexpr std::string_view c_userAreas[] = {"/opt", "/tmp"};
constexpr std::string_view c_excludedDirectories[] = {"/var/tmp/rpm-tmp", "/data/pebblecove"};

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
    const std::size_t kept = std::min<std::size_t>(length > 0 ? static_cast<std::size_t>(length) : 0,
                                                   static_cast<std::size_t>(size - 1));
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

bool connectToDaemon(UnixSocket& socket, const char* function)
{
    if (socket.ConnectToHost(c_daemonNameUserMsg) != 0) {
        KZOL_LOGE_IN(function, "Failed to connect to vexmd;");
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

// Type 'P' with selector '5' or '6' selects the matching key text; an empty
// text selects nothing.
bool selectKey(char sigType, char keyId, const std::string& key5, const std::string& key6, std::string& key)
{
    if (sigType != 'P') {
        return false;
    }
    switch (keyId) {
    case '5':
        key = key5;
        break;
    case '6':
        key = key6;
        break;
    default:
        key.clear();
        break;
    }
    return !key.empty();
}

}  // namespace

Result BSContext::verifyFile(const std::string& path, const char* caller)
{
    return verifyFileWithKeys(path, kzol_keys::c_publicKey5, kzol_keys::c_publicKey6, caller);
}

Result BSContext::verifyFileWithKeys(const std::string& path, const std::string& publicKey5,
                                     const std::string& publicKey6, const char* caller)
{
    Signature signature;
    _ZolSigMeta meta{};
    if (!signature.loadFromFile(path, meta)) {
        KZOL_LOGE_IN("verifyFile", "[zol][%s]! : \033[1;31mNot Signed [ file_path : %s ]\033[0m", caller,
                     path.c_str());
        return BS_NOT_SIGNED;
    }
    std::string key;
    if (!selectKey(meta.sigType, meta.keyId, publicKey5, publicKey6, key)) {
        return BS_ERROR;
    }
    return verifyFile(path, signature, key, caller);
}

Result BSContext::verifyFile(const std::string& path, const Signature& signature, const std::string& key,
                             const char* caller)
{
    bool isVerified = false;
    if (!verify(path, signature, key, isVerified)) {
        log("[zol][%s] : error during signature check [ file_path : %s ]", caller, path.c_str());
        return BS_ERROR;
    }
    if (isVerified) {
        KZOL_LOGI("[zol][%s] : \033[1;32mCorrect Signed [ file_path : %s ]\033[0m", caller, path.c_str());
        return BS_SIGNATURE_CORRECT;
    }
    KZOL_LOGE("[zol][%s]! : \033[1;31mIncorrect Signed [ file_path : %s ]\033[0m", caller, path.c_str());
    return BS_SIGNATURE_INCORRECT;
}

bool BSContext::verify(const std::string& path, const Signature& signature, const std::string& key,
                       bool& isVerified)
{
    FILE* pFile = bs_fopen(path.c_str(), "rb");
    if (pFile == nullptr) {
        KZOL_LOGE("BSContext::%s(): failed to open [%s] for reading", "verify", path.c_str());
        return false;
    }
    const bool done = verify(pFile, signature, key, isVerified);
    bs_fclose(pFile);
    return done;
}

bool BSContext::verify(FILE* pFile, const Signature& signature, const std::string& key, bool& isVerified)
{
    VerifyContext context;
    if (!context.loadPublicKey(key)) {
        KZOL_LOGE("BSContext::%s(): failed to load RSA key from %s", "verify", key.c_str());
        return false;
    }
    if (!context.init()) {
        return false;
    }
    if (!verifyFileContent(pFile, context, signature.offset())) {
        return false;
    }
    return context.checkMPI(signature, isVerified);
}

bool BSContext::verifyFileContent(FILE* pFile, VerifyContext& context, unsigned int length)
{
    ByteBuffer buffer;
    buffer.reserve(c_readChunk);
    (void)std::fseek(pFile, 0, SEEK_SET);  // the rewind's own result is deliberately not tested
    unsigned int remaining = length;
    while (remaining > 0) {
        const unsigned int n = remaining < c_readChunk ? remaining : c_readChunk;
        buffer.resize(n);
        if (std::fread(buffer.data(), 1, n, pFile) != n) {
            return false;
        }
        if (!context.update(buffer)) {
            return false;
        }
        remaining -= n;
    }
    return true;
}

bool BSContext::SelectPubKey(char sigType, char keyId, std::string& key)
{
    return selectKey(sigType, keyId, kzol_keys::c_publicKey5, kzol_keys::c_publicKey6, key);
}

long BSContext::getFileSize(FILE* pFile)
{
    if (pFile == nullptr) {
        KZOL_LOGE("BSContext::%s(): pFile is NULL", "getFileSize");
        return 0;
    }
    fseeko(pFile, 0, SEEK_END);
    return static_cast<long>(ftello(pFile));
}

int BSContext::checkFileIsInRWUser(const char* path, char* resolved) const
{
    if (path == nullptr || resolved == nullptr || realpath(path, resolved) == nullptr) {
        const int error = path == nullptr || resolved == nullptr ? EINVAL : errno;
        char buffer[128];
        KZOL_LOGE("realpath() error : %s;", strerror_r(error, buffer, sizeof(buffer)));
        return -1;
    }
    for (const std::string_view area : c_userAreas) {
        if (std::strncmp(resolved, area.data(), area.size()) != 0) {
            continue;
        }
        const char* rest = resolved + area.size();
        for (const std::string_view excluded : c_excludedDirectories) {
            if (std::strncmp(rest, excluded.data(), excluded.size()) == 0) {
                return -1;
            }
        }
        return 0;
    }
    return -1;
}

bool BSContext::readDeviceId(ByteBuffer& out, const std::string& deviceId) const
{
    out.assign(deviceId.begin(), deviceId.end());
    return true;
}

bool BSContext::verifyWithDeviceId(const std::string& fileName, const Signature& signature,
                                   const std::string& publicKey, const std::string& deviceId, bool& isCorrect) const
{
    ByteBuffer data;
    readDeviceId(data, deviceId);
    FILE* pFile = bs_fopen(fileName.c_str(), "rb");
    if (pFile == nullptr) {
        KZOL_LOGE("BSContext::%s(): failed to open [%s] for reading", "verifyWithDeviceId", fileName.c_str());
        return false;
    }
    // The certificate only has to be readable: none of its bytes are signed.
    VerifyContext context;
    const bool done = context.loadPublicKey(publicKey) && context.init() && context.update(data) &&
                      context.checkMPI(signature, isCorrect);
    bs_fclose(pFile);
    return done;
}

Result BSContext::verifyFileWithDeviceId(const std::string& fileName, const std::string& deviceId,
                                         const char* caller)
{
    Signature signature;
    _ZolSigMeta meta{};
    if (!signature.loadFromFile(fileName, meta)) {
        return BS_NOT_SIGNED;
    }
    std::string key;
    if (!SelectPubKey(meta.sigType, meta.keyId, key)) {
        return BS_ERROR;
    }
    bool isCorrect = false;
    if (!verifyWithDeviceId(fileName, signature, key, deviceId, isCorrect)) {
        log("BSContext::%s(): error during signature check", "verifyFileWithDeviceId");
        return BS_ERROR;
    }
    if (isCorrect) {
        KZOL_LOGI("[zol][%s] : \033[1;32mDUID Correct Signed [ file_path : %s ]\033[0m", caller, fileName.c_str());
        return BS_SIGNATURE_CORRECT;
    }
    KZOL_LOGE("[zol][%s]! : \033[1;31mDUID Incorrect Signed [ file_path : %s ]\033[0m", caller, fileName.c_str());
    return BS_SIGNATURE_INCORRECT;
}

std::string BSContext::ComposeDescription(const char* subject, const char* object, Result result) const
{
    const char* name = "";
    switch (static_cast<std::int32_t>(result)) {
    case BS_ERROR: name = "BS_ERROR"; break;
    case BS_INVALID_FILE_TYPE: name = "BS_INVALID_FILE_TYPE"; break;
    case BS_NOT_SIGNED: name = "BS_NOT_SIGNED"; break;
    case BS_SIGNATURE_INCORRECT: name = "BS_SIGNATURE_INCORRECT"; break;
    default: break;  // 5 and every other value have no name
    }
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
