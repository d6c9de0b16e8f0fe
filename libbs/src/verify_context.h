// The signature check context: the engine's only contact with OpenSSL.
//
// One object holds an RSA public key parsed from PEM text and a SHA-256 digest
// context. Data goes to the digest in as many pieces as the caller likes; the
// signature (raw bytes or an MPI string) is then verified against the digest
// with the key, as RSASSA-PKCS1-v1_5.
//
// Order of calls: loadPublicKey (or loadKey), init, update any number of times,
// then check or checkMPI. checkSignature and checkSignatureMPI run init, one
// update and the check in one call; they do not load a key.
//
// The check operations answer whether the verification could be carried out.
// When they answer false the verified flag is left as it was; when they answer
// true it is set to whether the signature matched. Callers preset it to false.
#pragma once

#include <openssl/evp.h>

#include <string>

#include "handles.h"
#include "string_utils.h"

class VerifyContext {
public:
    VerifyContext();
    ~VerifyContext();
    VerifyContext(const VerifyContext&) = delete;
    VerifyContext& operator=(const VerifyContext&) = delete;

    // Releases any key held before, then parses `key` as a PEM public key.
    // Only RSA keys are accepted; after a failure no key is held.
    bool loadKey(const std::string& key);
    bool loadPublicKey(const std::string& key);
    // loadKey for a caller that checks many files with the same few keys: the
    // key parsed from `key` is kept for the life of the process and shared by
    // every later call with the same text, from any thread. A text that fails
    // to parse is not kept; the next call tries again, with the same log line.
    bool loadKeptKey(const std::string& key);

    // Starts a fresh SHA-256 digest, replacing any digest started before.
    bool init();

    bool update(const unsigned char* data, unsigned int length);
    bool update(const ByteBuffer& data);

    bool check(const unsigned char* pSignature, unsigned int length, bool& isVerified);
    bool check(const ByteBuffer& signature, bool& isVerified);
    // `signature` is an MPI string: "0x", hexadecimal digits and a NUL.
    bool checkMPI(const ByteBuffer& signature, bool& isVerified);

    bool checkSignature(const ByteBuffer& data, const ByteBuffer& signature, bool& isVerified);
    bool checkSignatureMPI(const ByteBuffer& data, const ByteBuffer& signature, bool& isVerified);

    // Each may be called any number of times.
    void destroy();
    void destroyKey();
    void destroyContext();

private:
    EvpPkeyPtr m_pKey;
    EvpMdCtxPtr m_pContext;
};

// The digest of every signature: SHA-256.
const EVP_MD* hashType();

// Kept as an entry point; the library holds no global OpenSSL state, so there
// is nothing to clean up.
void cleanupOpenSSL();
