// The private key a signing command uses: a PEM file, or a key held in a
// PKCS#11 token (a hardware token or HSM) named by an RFC 7512 URI such as
//   pkcs11:token=release;object=key5?module-path=/usr/lib/softhsm/libsofthsm2.so
// A token key never leaves the token: OpenSSL hands each signature to it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common.h"
#include "token_uri.h"

namespace kzol {

// Where the module and the PIN of a token come from when the URI does not say:
// --module, --pin-file, the environment variable KZOL_PKCS11_PIN, then a
// prompt without echo when standard input is a terminal. --pass-file: the
// passphrase of an encrypted PEM key.
struct TokenOptions {
    std::string module;
    std::string pinFile;
    std::string passFile;  // the passphrase of an encrypted PEM key
};

// '5' or '6' when `key` (private or public) is a development key of the
// source tree (keys/dev/), recognised by its fingerprint wherever its file
// lies; 0 otherwise.
char developmentKeyOf(EVP_PKEY* key);
// The same for a key's fingerprint (lower-case hex SHA-256 of its DER form).
char developmentKeyOfFingerprint(const std::string& fingerprintHex);
// The warning that names a development key used to sign, "" for another key.
std::string developmentKeyWarning(EVP_PKEY* key);

class SigningKey {
public:
    SigningKey();
    ~SigningKey();
    SigningKey(const SigningKey&) = delete;
    SigningKey& operator=(const SigningKey&) = delete;

    // Loads `keyName` (a PEM path or a pkcs11: URI); only an RSA-2048 key is accepted.
    bool load(const std::string& keyName, const TokenOptions& options, std::string& error);
    EVP_PKEY* get() const { return m_key.get(); }
    // A token key serves one signature at a time.
    bool inToken() const { return m_token != nullptr; }

private:
    struct Token;
    std::unique_ptr<Token> m_token;  // outlives m_key, which it may back
    EvpPkeyPtr m_key;
};

}  // namespace kzol
