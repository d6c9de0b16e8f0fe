#include "keyset.h"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "bs_context.h"
#include "common.h"
#include "dev_keys.h"
#include "writer.h"

namespace kzol {

namespace {

constexpr std::size_t c_publicKeyFileLimit = 64 * 1024;

bool parsePublicKey(const std::string& pem, EvpPkeyPtr& key, std::string& error)
{
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) {
        error = withOpensslErrors("cannot allocate a memory BIO");
        return false;
    }
    key.reset(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    if (!key) {
        error = withOpensslErrors("not a PEM public key");
        return false;
    }
    if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA || EVP_PKEY_bits(key.get()) != c_signingKeyBits) {
        error = "not an RSA-2048 public key";
        return false;
    }
    return true;
}

bool readKeyFile(const std::string& path, std::string& pem, std::string& error)
{
    ByteBuffer bytes;
    if (!readFileBytes(path, bytes, error, c_publicKeyFileLimit)) {
        return false;
    }
    pem.assign(bytes.begin(), bytes.end());
    EvpPkeyPtr key;
    std::string why;
    if (!parsePublicKey(pem, key, why)) {
        error = path + ": " + why;
        return false;
    }
    return true;
}

}  // namespace

KeySet builtInKeys()
{
    KeySet keys;
    BSContext context;
    if (!context.SelectPubKey('P', '5', keys.pem5)) {
        keys.pem5.clear();
    }
    if (!context.SelectPubKey('P', '6', keys.pem6)) {
        keys.pem6.clear();
    }
    return keys;
}

bool loadKeySet(const std::string& directory, const std::vector<std::string>& overrides, KeySet& keys,
                std::string& error)
{
    keys = KeySet{};
    if (!directory.empty()) {
        struct stat st {};
        if (::stat(directory.c_str(), &st) != 0 && errno != ENOENT && errno != ENOTDIR) {
            error = "unreadable key directory " + directory + ": " + errnoText(errno);
            return false;
        }
        if (!S_ISDIR(st.st_mode)) {
            error = directory + " is not a directory of keys";
            return false;
        }
        for (const char selector : {'5', '6'}) {
            const std::string path = directory + "/public_key_" + selector + ".pem";
            if (::access(path.c_str(), F_OK) != 0) {
                if (errno != ENOENT) {
                    error = "unreadable key directory " + directory + ": " + errnoText(errno);
                    return false;
                }
                continue;
            }
            if (!readKeyFile(path, selector == '5' ? keys.pem5 : keys.pem6, error)) {
                return false;
            }
        }
    }
    for (const std::string& item : overrides) {
        if (item.size() < 3 || (item[0] != '5' && item[0] != '6') || item[1] != '=') {
            error = "--pubkey takes 5=FILE or 6=FILE, not " + item;
            return false;
        }
        if (!readKeyFile(item.substr(2), item[0] == '5' ? keys.pem5 : keys.pem6, error)) {
            return false;
        }
    }
    if (keys.pem5.empty() && keys.pem6.empty()) {
        error = "no public key found" + (directory.empty() ? std::string() : " in " + directory) +
                " (public_key_5.pem, public_key_6.pem)";
        return false;
    }
    return true;
}

bool fingerprint(EVP_PKEY* key, std::string& hex, std::string& error)
{
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    if (length <= 0) {
        error = withOpensslErrors("cannot encode the public key");
        return false;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    const int done = EVP_Digest(der, static_cast<std::size_t>(length), digest, &digestLength, EVP_sha256(), nullptr);
    OPENSSL_free(der);
    if (done != 1) {
        error = withOpensslErrors("SHA-256 failed");
        return false;
    }
    hex.clear();
    for (unsigned int i = 0; i < digestLength; ++i) {
        const unsigned char byte = digest[i];
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", byte);
        hex += pair;
    }
    return true;
}

bool fingerprintOfPem(const std::string& pem, std::string& hex, std::string& error)
{
    EvpPkeyPtr key;
    return parsePublicKey(pem, key, error) && fingerprint(key.get(), hex, error);
}

bool isDevelopmentKey(char selector, const std::string& pem)
{
    return !pem.empty() && pem == (selector == '5' ? c_devPublicKey5 : c_devPublicKey6);
}

}  // namespace kzol
