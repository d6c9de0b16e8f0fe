#include "token_uri.h"

#include <openssl/crypto.h>

#include <algorithm>

#include "string_utils.h"

namespace kzol {

namespace {

constexpr char c_scheme[] = "pkcs11:";

bool percentDecode(const std::string& text, std::string& out, std::string& error)
{
    out.clear();
    out.reserve(text.size());  // one allocation: no copy of a PIN left behind
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hexValue(static_cast<unsigned char>(text[i + 1])) : -1;
        const int low = high >= 0 ? hexValue(static_cast<unsigned char>(text[i + 2])) : -1;
        if (low < 0) {
            error = "bad percent-escape";
            return false;
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

// Splits "a=1;b=2" at `separator` into names and decoded values and hands
// each to `take`, which answers false for a name it does not know. Empty
// items (";;") are passed over.
template <typename Take>
bool forEachAttribute(const std::string& part, char separator, const char* where, Take take, std::string& error)
{
    std::size_t start = 0;
    while (start < part.size()) {
        std::size_t end = part.find(separator, start);
        if (end == std::string::npos) {
            end = part.size();
        }
        // Values may be a PIN: never shown, wiped before their memory goes.
        std::string item = part.substr(start, end - start);
        start = end + 1;
        if (item.empty()) {
            continue;
        }
        const std::size_t equals = item.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = std::string("pkcs11 URI: a ") + where + " attribute without a name and value";
            wipe(item);
            return false;
        }
        std::string encoded = item.substr(equals + 1);
        std::string value;
        const std::string name = item.substr(0, equals);
        wipe(item);
        const bool decoded = percentDecode(encoded, value, error);
        wipe(encoded);
        if (!decoded) {
            error = "pkcs11 URI: " + error + " in the value of \"" + name + "\"";
            wipe(value);
            return false;
        }
        const bool known = take(name, value);
        wipe(value);
        if (!known) {
            error = std::string("pkcs11 URI: unknown ") + where + " attribute \"" + name + "\"";
            return false;
        }
    }
    return true;
}

}  // namespace

void wipe(std::string& secret)
{
    OPENSSL_cleanse(&secret[0], secret.size());
    secret.clear();
}

std::string redactedKeyName(const std::string& keyName)
{
    if (!isTokenUri(keyName)) {
        return keyName;
    }
    std::string shown = keyName;
    const std::size_t question = shown.find('?');
    for (std::size_t at = question; at != std::string::npos && at < shown.size();) {
        const std::size_t end = std::min(shown.find('&', at + 1), shown.size());
        const std::size_t begin = at + 1;
        if (shown.compare(begin, 10, "pin-value=") == 0) {
            shown.replace(begin + 10, end - begin - 10, "(hidden)");
            at = shown.find('&', begin);
        } else {
            at = end < shown.size() ? end : std::string::npos;
        }
    }
    return shown;
}

bool isTokenUri(const std::string& text)
{
    return text.compare(0, sizeof(c_scheme) - 1, c_scheme) == 0;
}

bool parseTokenUri(const std::string& text, TokenUri& uri, std::string& error)
{
    uri = TokenUri{};
    if (!isTokenUri(text)) {
        error = "not a pkcs11: URI";
        return false;
    }
    const std::size_t question = text.find('?');
    const std::string path = text.substr(sizeof(c_scheme) - 1, question - (sizeof(c_scheme) - 1));
    std::string query = question == std::string::npos ? std::string() : text.substr(question + 1);
    const auto pathAttribute = [&uri](const std::string& name, const std::string& value) {
        if (name == "token") {
            uri.token = value;
        } else if (name == "serial") {
            uri.serial = value;
        } else if (name == "manufacturer") {
            uri.manufacturer = value;
        } else if (name == "model") {
            uri.model = value;
        } else if (name == "object") {
            uri.object = value;
        } else if (name == "id") {
            uri.id = value;
            uri.hasId = true;
        } else if (name == "type") {
            return value == "private";
        } else {
            return false;
        }
        return true;
    };
    const auto queryAttribute = [&uri](const std::string& name, const std::string& value) {
        if (name == "module-path") {
            uri.modulePath = value;
        } else if (name == "pin-value") {
            uri.pinValue = value;
        } else if (name == "pin-source") {
            uri.pinSource = value.compare(0, 5, "file:") == 0 ? value.substr(5) : value;
        } else {
            return false;
        }
        return true;
    };
    const bool parsed = forEachAttribute(path, ';', "path", pathAttribute, error) &&
                        forEachAttribute(query, '&', "query", queryAttribute, error);
    wipe(query);
    if (!parsed) {
        wipe(uri.pinValue);
    }
    return parsed;
}

}  // namespace kzol
