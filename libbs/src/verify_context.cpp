#include "verify_context.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>

#include "log.h"

namespace {

// The largest piece that fits the 32-bit length of the pointer operations.
constexpr std::size_t c_maxPiece = UINT_MAX;

}  // namespace

VerifyContext::VerifyContext() = default;

VerifyContext::~VerifyContext()
{
    destroy();
}

bool VerifyContext::loadKey(const std::string& key)
{
    destroyKey();

    m_pKey.reset(EVP_PKEY_new());
    const BioPtr bio(BIO_new(BIO_s_mem()));
    if (m_pKey == nullptr && !bio) {
        KZOL_LOGE("VerifyContext::loadKey(): failed to allocate key");
        return false;
    }

    // A text too long for BIO_write's length counts as a failed write rather
    // than being cut short.
    int written = -1;
    if (bio && key.size() <= static_cast<std::size_t>(INT_MAX)) {
        written = BIO_write(bio.get(), key.data(), static_cast<int>(key.size()));
    }

    // On success PEM_read_bio_PUBKEY stores the key it read in `held` and
    // disposes of the object that was there (or makes one when there was
    // none); on failure it leaves `held` as it was. Either way m_pKey takes
    // back the only handle to release.
    bool read = false;
    if (bio && written >= 0) {
        EVP_PKEY* held = m_pKey.release();
        read = PEM_read_bio_PUBKEY(bio.get(), &held, nullptr, nullptr) != nullptr;
        m_pKey.reset(held);
    }
    if (!read || EVP_PKEY_type(EVP_PKEY_id(m_pKey.get())) != EVP_PKEY_RSA) {
        KZOL_LOGE("VerifyContext::loadKey(): failed to load public key");
        m_pKey.reset();
        return false;
    }
    return true;
}

bool VerifyContext::loadPublicKey(const std::string& key)
{
    return loadKey(key);
}

bool VerifyContext::loadKeptKey(const std::string& key)
{
    // Parsed keys are read-only to OpenSSL's verification, so one object
    // serves every thread; each context holds a reference of its own. OpenSSL
    // is set up before the store exists, so that its clean-up at exit comes
    // after the store has released the keys.
    static const int s_openssl = OPENSSL_init_crypto(0, nullptr);
    static std::mutex s_mutex;
    static std::map<std::string, EvpPkeyPtr> s_kept;
    (void)s_openssl;
    const std::lock_guard<std::mutex> lock(s_mutex);
    const auto found = s_kept.find(key);
    if (found != s_kept.end()) {
        if (EVP_PKEY_up_ref(found->second.get()) != 1) {
            return loadKey(key);
        }
        destroyKey();
        m_pKey.reset(found->second.get());
        return true;
    }
    if (!loadKey(key)) {
        return false;
    }
    if (EVP_PKEY_up_ref(m_pKey.get()) == 1) {
        s_kept.emplace(key, EvpPkeyPtr(m_pKey.get()));
    }
    return true;
}

bool VerifyContext::init()
{
    destroyContext();

    m_pContext.reset(EVP_MD_CTX_new());
    if (m_pContext == nullptr) {
        KZOL_LOGE("VerifyContext::init(): failed to allocate OpenSSL context");
        return false;
    }
    return EVP_DigestInit(m_pContext.get(), hashType()) == 1;
}

bool VerifyContext::update(const unsigned char* data, unsigned int length)
{
    if (m_pContext == nullptr) {
        KZOL_LOGE("VerifyContext::update(): m_pContext is NULL");
        return false;
    }
    if (data == nullptr) {
        KZOL_LOGE("VerifyContext::update(): data is NULL");
        return false;
    }
    return EVP_DigestUpdate(m_pContext.get(), data, length) == 1;
}

bool VerifyContext::update(const ByteBuffer& data)
{
    if (data.empty()) {
        KZOL_LOGE("VerifyContext::update(): data is empty");
        return false;
    }
    // Fed in place; a buffer beyond the 32-bit length goes in several pieces
    // so that none of it is left out of the digest.
    const unsigned char* pData = data.data();
    std::size_t remaining = data.size();
    while (remaining > 0) {
        const std::size_t piece = std::min(remaining, c_maxPiece);
        if (!update(pData, static_cast<unsigned int>(piece))) {
            return false;
        }
        pData += piece;
        remaining -= piece;
    }
    return true;
}

bool VerifyContext::check(const unsigned char* pSignature, unsigned int length, bool& isVerified)
{
    if (pSignature == nullptr) {
        KZOL_LOGE("VerifyContext::check(): pSignature is NULL");
        return false;
    }
    if (m_pContext == nullptr || m_pKey == nullptr) {
        KZOL_LOGE("VerifyContext::check(): m_pKey or m_pContext is NULL");
        return false;
    }
    const int result = EVP_VerifyFinal(m_pContext.get(), pSignature, length, m_pKey.get());
    if (result == -1) {
        return false;
    }
    isVerified = (result == 1);
    return true;
}

bool VerifyContext::check(const ByteBuffer& signature, bool& isVerified)
{
    if (signature.empty()) {
        KZOL_LOGE("VerifyContext::check(): signature is empty");
        return false;
    }
    // A signature beyond the 32-bit length is passed as UINT_MAX bytes, which
    // no key's modulus size matches; cutting the length down instead could
    // turn an overlong buffer into one of the right size.
    const std::size_t length = std::min(signature.size(), c_maxPiece);
    return check(signature.data(), static_cast<unsigned int>(length), isVerified);
}

bool VerifyContext::checkMPI(const ByteBuffer& signature, bool& isVerified)
{
    ByteBuffer raw;
    if (!fromMPIString(signature, raw)) {
        KZOL_LOGE("VerifyContext::checkMPI(): invalid MPI format");
        return false;
    }
    return check(raw, isVerified);
}

bool VerifyContext::checkSignature(const ByteBuffer& data, const ByteBuffer& signature, bool& isVerified)
{
    return init() && update(data) && check(signature, isVerified);
}

bool VerifyContext::checkSignatureMPI(const ByteBuffer& data, const ByteBuffer& signature, bool& isVerified)
{
    return init() && update(data) && checkMPI(signature, isVerified);
}

void VerifyContext::destroy()
{
    destroyContext();
    destroyKey();
}

void VerifyContext::destroyKey()
{
    m_pKey.reset();
}

void VerifyContext::destroyContext()
{
    m_pContext.reset();
}

const EVP_MD* hashType()
{
    return EVP_sha256();
}

void cleanupOpenSSL()
{
}
