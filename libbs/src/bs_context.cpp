#include "bs_context.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "areas.h"
#include "handles.h"
#include "log.h"
#include "public_keys.h"
#include "verify_context.h"

namespace {

constexpr unsigned int c_readChunk = 16384;

// Type 'P' with selector '5' or '6' selects the matching key text; an empty
// text selects nothing.
bool selectKey(char sigType, char keyId, const std::string& key5, const std::string& key6, std::string& key)
{
    if (sigType != 'P') {
        return false;
    }
    switch (keyId) {
    case '5': key = key5; break;
    case '6': key = key6; break;
    default: key.clear(); break;
    }
    return !key.empty();
}

// A read-only stream over an open descriptor that reads with pread at its
// own position: the descriptor's file offset is neither used nor moved, so
// the caller's offset does not matter and the caller keeps its descriptor.
struct DescriptorCursor {
    int fd;
    off64_t position;
};

ssize_t readAt(void* cookie, char* buffer, std::size_t size)
{
    auto* cursor = static_cast<DescriptorCursor*>(cookie);
    ssize_t got = 0;
    do {
        got = pread(cursor->fd, buffer, size, cursor->position);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        cursor->position += got;
    }
    return got;
}

int seekTo(void* cookie, off64_t* offset, int whence)
{
    auto* cursor = static_cast<DescriptorCursor*>(cookie);
    off64_t base = 0;
    if (whence == SEEK_CUR) {
        base = cursor->position;
    } else if (whence == SEEK_END) {
        struct stat status {};
        if (fstat(cursor->fd, &status) != 0) {
            return -1;
        }
        base = status.st_size;
    } else if (whence != SEEK_SET) {
        errno = EINVAL;
        return -1;
    }
    if (*offset < 0 && base < -*offset) {
        errno = EINVAL;
        return -1;
    }
    cursor->position = base + *offset;
    *offset = cursor->position;
    return 0;
}

int releaseCursor(void* cookie)
{
    delete static_cast<DescriptorCursor*>(
        cookie);  // NOLINT(cppcoreguidelines-owning-memory): the stream owns its cursor
    return 0;
}

// Null when no stream can be made (memory); the descriptor stays the caller's.
FilePtr openDescriptor(int fd)
{
    std::unique_ptr<DescriptorCursor> cursor(new (std::nothrow) DescriptorCursor{fd, 0});
    if (!cursor) {
        return {};
    }
    const cookie_io_functions_t functions{readAt, nullptr, seekTo, releaseCursor};
    FilePtr stream(fopencookie(cursor.get(), "rb", functions));
    if (stream) {
        (void)cursor.release();  // released by the stream's close
    }
    return stream;
}

void logNotSigned(const char* caller, const std::string& path)
{
    KZOL_LOGE_IN("verifyFile", "[zol][%s]! : \033[1;31mNot Signed [ file_path : %s ]\033[0m", caller, path.c_str());
}

// The outcome of a check that `done` (or could not be carried out), logged.
Result verdict(bool done, bool isVerified, const std::string& path, const char* caller)
{
    if (!done) {
        log("[zol][%s] : error during signature check [ file_path : %s ]", caller, path.c_str());
        return BS_ERROR;
    }
    if (isVerified) {
        KZOL_LOGI_IN("verifyFile", "[zol][%s] : \033[1;32mCorrect Signed [ file_path : %s ]\033[0m", caller,
                     path.c_str());
        return BS_SIGNATURE_CORRECT;
    }
    KZOL_LOGE_IN("verifyFile", "[zol][%s]! : \033[1;31mIncorrect Signed [ file_path : %s ]\033[0m", caller,
                 path.c_str());
    return BS_SIGNATURE_INCORRECT;
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
        logNotSigned(caller, path);
        return BS_NOT_SIGNED;
    }
    std::string key;
    if (!selectKey(meta.sigType, meta.keyId, publicKey5, publicKey6, key)) {
        return BS_ERROR;
    }
    return verifyFile(path, signature, key, caller);
}

Result BSContext::verifyFile(int fd, const std::string& path, const char* caller)
{
    const FilePtr stream = openDescriptor(fd);
    Signature signature;
    _ZolSigMeta meta{};
    if (!stream || !signature.loadFromStream(stream.get(), meta)) {
        logNotSigned(caller, path);
        return BS_NOT_SIGNED;
    }
    std::string key;
    if (!SelectPubKey(meta.sigType, meta.keyId, key)) {
        return BS_ERROR;
    }
    bool isVerified = false;
    const bool done = verify(stream.get(), signature, key, isVerified);
    return verdict(done, isVerified, path, caller);
}

Result BSContext::verifyFile(const std::string& path, const Signature& signature, const std::string& key,
                             const char* caller)
{
    bool isVerified = false;
    const bool done = verify(path, signature, key, isVerified);
    return verdict(done, isVerified, path, caller);
}

bool BSContext::verify(const std::string& path, const Signature& signature, const std::string& key, bool& isVerified)
{
    const FilePtr file(bs_fopen(path.c_str(), "rb"));
    if (file == nullptr) {
        KZOL_LOGE("BSContext::%s(): failed to open [%s] for reading", "verify", path.c_str());
        return false;
    }
    return verify(file.get(), signature, key, isVerified);
}

bool BSContext::verify(FILE* pFile, const Signature& signature, const std::string& key, bool& isVerified)
{
    VerifyContext context;
    if (!(m_keepKeys ? context.loadKeptKey(key) : context.loadPublicKey(key))) {
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
    const off_t size = ftello(pFile);
    // Where long is 32 bits, a size from 2 GiB on does not fit: -1 with
    // EOVERFLOW, as ftell answers, rather than a wrapped size.
    if (size > static_cast<off_t>(std::numeric_limits<long>::max())) {
        errno = EOVERFLOW;
        return -1;
    }
    return static_cast<long>(size);
}

int BSContext::checkFileIsInRWUser(const char* path, char* resolved) const
{
    if (path == nullptr || resolved == nullptr || realpath(path, resolved) == nullptr) {
        const int error = path == nullptr || resolved == nullptr ? EINVAL : errno;
        char buffer[128];
        KZOL_LOGE("realpath() error : %s;", strerror_r(error, buffer, sizeof(buffer)));
        errno = error;
        return -1;
    }
    errno = 0;
    return areas::locate(resolved).place == areas::Place::inside ? 0 : -1;
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
    const FilePtr file(bs_fopen(fileName.c_str(), "rb"));
    if (file == nullptr) {
        KZOL_LOGE("BSContext::%s(): failed to open [%s] for reading", "verifyWithDeviceId", fileName.c_str());
        return false;
    }
    // The certificate only has to be readable: none of its bytes are signed.
    VerifyContext context;
    return context.loadPublicKey(publicKey) && context.init() && context.update(data) &&
           context.checkMPI(signature, isCorrect);
}

Result BSContext::verifyFileWithDeviceId(const std::string& fileName, const std::string& deviceId, const char* caller)
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
