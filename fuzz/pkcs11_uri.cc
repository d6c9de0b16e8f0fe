// The pkcs11: URI parser of kzol over arbitrary text. Checked: text without
// the scheme is refused; a URI that parses is written out again with every
// byte of every value percent-escaped, and that URI parses to the same parts;
// the URI as messages show it parses to the same parts, the PIN hidden.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "token_uri.h"

namespace {

std::string escaped(const std::string& value)
{
    std::string out;
    for (const unsigned char c : value) {
        char hex[4];
        std::snprintf(hex, sizeof(hex), "%%%02X", c);
        out += hex;
    }
    return out;
}

bool same(const kzol::TokenUri& a, const kzol::TokenUri& b)
{
    return a.token == b.token && a.serial == b.serial && a.manufacturer == b.manufacturer && a.model == b.model &&
           a.object == b.object && a.id == b.id && a.hasId == b.hasId && a.modulePath == b.modulePath &&
           a.pinValue == b.pinValue && a.pinSource == b.pinSource;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    kzol::TokenUri uri;
    std::string error;
    const bool parsed = kzol::parseTokenUri(text, uri, error);
    if (!kzol::isTokenUri(text) && parsed) {
        std::abort();
    }
    if (!parsed) {
        if (error.empty()) {
            std::abort();  // every refusal says why
        }
        return 0;
    }
    std::string again = "pkcs11:token=" + escaped(uri.token) + ";serial=" + escaped(uri.serial) +
                        ";manufacturer=" + escaped(uri.manufacturer) + ";model=" + escaped(uri.model) +
                        ";object=" + escaped(uri.object);
    if (uri.hasId) {
        again += ";id=" + escaped(uri.id);
    }
    again += "?module-path=" + escaped(uri.modulePath) + "&pin-value=" + escaped(uri.pinValue) +
             "&pin-source=file:" + escaped(uri.pinSource);
    kzol::TokenUri reparsed;
    if (!kzol::parseTokenUri(again, reparsed, error) || !same(uri, reparsed)) {
        std::abort();
    }
    kzol::TokenUri shown;
    if (!kzol::parseTokenUri(kzol::redactedKeyName(text), shown, error) ||
        (!uri.pinValue.empty() && shown.pinValue != "(hidden)")) {
        std::abort();
    }
    shown.pinValue = uri.pinValue;
    if (!same(uri, shown)) {
        std::abort();
    }
    return 0;
}
