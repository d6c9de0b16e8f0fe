// BSContext: the verification driver (signature block, key selection, hashing
// of the signed region), the policy's area test and device-bound verification
// (bs_context.cpp), and the report composition and sending
// (bs_context_report.cpp). One is built on the stack for each call; it holds
// only whether that call checks signatures with kept keys.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "signature.h"
#include "string_utils.h"

class VerifyContext;

// Outcome of a verification. The numbers are fixed (gaps at 1 and 3): reports
// carry them by name and the policy lets a file run on 5 alone.
enum Result : std::int32_t {
    BS_ERROR = 0,
    BS_INVALID_FILE_TYPE = 2,  // named in reports, never returned
    BS_NOT_SIGNED = 4,
    BS_SIGNATURE_CORRECT = 5,
    BS_SIGNATURE_INCORRECT = 6,
};

// The name of a result ("BS_NOT_SIGNED"), or null for a value that is none.
inline const char* resultName(Result result)
{
    switch (static_cast<std::int32_t>(result)) {
    case BS_ERROR: return "BS_ERROR";
    case BS_INVALID_FILE_TYPE: return "BS_INVALID_FILE_TYPE";
    case BS_NOT_SIGNED: return "BS_NOT_SIGNED";
    case BS_SIGNATURE_CORRECT: return "BS_SIGNATURE_CORRECT";
    case BS_SIGNATURE_INCORRECT: return "BS_SIGNATURE_INCORRECT";
    default: return nullptr;
    }
}

class BSContext {
public:
    // With `keep`, the signature check takes its key from the keys kept for
    // the life of the process (VerifyContext::loadKeptKey) instead of parsing
    // the text again: the same answers and log lines, less work per call.
    void keepKeys(bool keep) { m_keepKeys = keep; }

    // Loads the block of `path`, selects the built-in key it names and checks
    // the signature over the signed region: 0, 4, 5 or 6.
    Result verifyFile(const std::string& path, const char* caller);
    // The same check with the two public keys given as PEM texts instead of
    // the built-in ones (verifyFile above is this call with the built-in
    // keys): the same block loader, key selection, digest and log lines. An
    // empty text selects nothing, so a block naming that selector is BS_ERROR.
    Result verifyFileWithKeys(const std::string& path, const std::string& publicKey5, const std::string& publicKey6,
                              const char* caller);
    // The same for the file open on `fd`: its bytes are read from the
    // descriptor (at positions of their own, whatever its offset), `path`
    // names it in the messages. The descriptor stays open.
    Result verifyFile(int fd, const std::string& path, const char* caller);
    // The check itself, with a loaded block and the key text: 0, 5 or 6.
    Result verifyFile(const std::string& path, const Signature& signature, const std::string& key, const char* caller);

    // False when the check could not be carried out (flag untouched); true
    // when it was, with `isVerified` telling whether the signature matched.
    bool verify(const std::string& path, const Signature& signature, const std::string& key, bool& isVerified);
    bool verify(FILE* pFile, const Signature& signature, const std::string& key, bool& isVerified);

    // Feeds exactly the first `length` bytes of the file to the started digest,
    // in chunks of 16384 bytes through one buffer.
    bool verifyFileContent(FILE* pFile, VerifyContext& context, unsigned int length);

    // Type 'P' with selector '5' or '6' selects a built-in public key.
    bool SelectPubKey(char sigType, char keyId, std::string& key);

    // Size of the open file in bytes (the file is left at its end); 0 for null;
    // -1 (errno EOVERFLOW) for a size that long cannot hold, as ftell.
    long getFileSize(FILE* pFile);

    // Resolves `path` into `resolved` (room for PATH_MAX bytes) and answers 0
    // when the real path lies in a user-writable area ("/opt", "/tmp", as plain
    // prefixes) and not in an excluded directory below it; -1 otherwise,
    // also when the path cannot be resolved. After -1, errno holds the
    // resolution's error, or 0 when the real path was found but lies outside.
    int checkFileIsInRWUser(const char* path, char* resolved) const;

    // Disable certificate: the signature in the certificate's block is over
    // the bytes of the device identifier, not over the file.
    bool readDeviceId(ByteBuffer& out, const std::string& deviceId) const;
    bool verifyWithDeviceId(const std::string& fileName, const Signature& signature, const std::string& publicKey,
                            const std::string& deviceId, bool& isCorrect) const;
    Result verifyFileWithDeviceId(const std::string& fileName, const std::string& deviceId, const char* caller);

    // Reports: the refusal description "ver:\"1\",subject:\"..\",object:\"..\",result:\"..\","
    std::string ComposeDescription(const char* subject, const char* object, Result result) const;
    // Refusal of a file: one message, one connection to the daemon. True when
    // the connection was opened and closed cleanly.
    bool SendRequestNotification(const std::string& path, const char* caller, Result result) const;
    // A component's own report of the given kind (the "Action/FileSend" value).
    bool SendRequestNotification(const char* caller, const char* fileType, const char* path, const char* description,
                                 int kind) const;

private:
    bool m_keepKeys = false;
};
