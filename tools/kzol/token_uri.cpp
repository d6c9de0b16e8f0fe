#include "token_uri.h"

#include "string_utils.h"

namespace kzol {

namespace {

constexpr char c_scheme[] = "pkcs11:";

bool percentDecode(const std::string& text, std::string& out, std::string& error)
{
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hexValue(static_cast<unsigned char>(text[i + 1])) : -1;
        const int low = high >= 0 ? hexValue(static_cast<unsigned char>(text[i + 2])) : -1;
        if (low < 0) {
            error = "bad percent-escape in \"" + text + "\"";
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
        const std::string item = part.substr(start, end - start);
        start = end + 1;
        if (item.empty()) {
            continue;
        }
        const std::size_t equals = item.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = std::string("pkcs11 URI: ") + where + " attribute without a name and value: \"" + item + "\"";
            return false;
        }
        std::string value;
        if (!percentDecode(item.substr(equals + 1), value, error)) {
            error = "pkcs11 URI: " + error;
            return false;
        }
        const std::string name = item.substr(0, equals);
        if (!take(name, value)) {
            error = std::string("pkcs11 URI: unknown ") + where + " attribute \"" + name + "\"";
            return false;
        }
    }
    return true;
}

}  // namespace

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
    const std::string rest = text.substr(sizeof(c_scheme) - 1);
    const std::size_t question = rest.find('?');
    const std::string path = rest.substr(0, question);
    const std::string query = question == std::string::npos ? std::string() : rest.substr(question + 1);
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
    return forEachAttribute(path, ';', "path", pathAttribute, error) &&
           forEachAttribute(query, '&', "query", queryAttribute, error);
}

}  // namespace kzol
