// The PKCS#11 URI (RFC 7512) that names a key in a token, for example
//   pkcs11:token=release;object=key5?module-path=/usr/lib/softhsm/libsofthsm2.so&pin-value=1234
#pragma once

#include <string>

namespace kzol {

// The parts of a pkcs11: URI that select a token and a key, decoded.
struct TokenUri {
    std::string token;         // token label
    std::string serial;        // token serial number
    std::string manufacturer;  // token manufacturer
    std::string model;         // token model
    std::string object;        // key label
    std::string id;            // key identifier (raw bytes)
    std::string modulePath;    // query: module-path
    std::string pinValue;      // query: pin-value
    std::string pinSource;     // query: pin-source (a file; "file:" taken off)
    bool hasId = false;
};

bool isTokenUri(const std::string& text);
// `keyName` for messages: in a pkcs11: URI the value of pin-value is hidden.
std::string redactedKeyName(const std::string& keyName);
// Overwrites a secret's bytes (OPENSSL_cleanse) and empties it.
void wipe(std::string& secret);
// Parses `text` ("pkcs11:" path ["?" query]); percent-escapes decoded.
// Attributes it does not know fail, so that a mistyped one is not ignored;
// "type" is accepted only as "private".
bool parseTokenUri(const std::string& text, TokenUri& uri, std::string& error);

}  // namespace kzol
