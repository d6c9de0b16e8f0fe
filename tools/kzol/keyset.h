// The two public keys a verification uses (selectors 5 and 6): the library's
// built-in ones, or ones a deployment hands to kzol (a directory in the
// layout `kzol keygen` writes, or single PEM files), and their fingerprints.
#pragma once

#include <openssl/evp.h>

#include <string>
#include <vector>

namespace kzol {

struct KeySet {
    std::string pem5;  // empty: no key for selector 5
    std::string pem6;
    const std::string& pem(char selector) const { return selector == '5' ? pem5 : pem6; }
};

// The keys compiled into the library, as its own key selection hands them out.
KeySet builtInKeys();

// Reads DIR/public_key_5.pem and DIR/public_key_6.pem (a missing one is no
// key), then each "5=FILE" or "6=FILE" of `overrides` in its place. Every
// text must parse as an RSA-2048 public key. Fails when no key is left.
bool loadKeySet(const std::string& directory, const std::vector<std::string>& overrides, KeySet& keys,
                std::string& error);

// SHA-256 of the DER SubjectPublicKeyInfo, lower-case hex (64 characters).
bool fingerprint(EVP_PKEY* key, std::string& hex, std::string& error);
bool fingerprintOfPem(const std::string& pem, std::string& hex, std::string& error);

// True when `pem` is the development key of the tree for `selector`.
bool isDevelopmentKey(char selector, const std::string& pem);

}  // namespace kzol
