#include "signing_key.h"

#include <libp11.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "writer.h"

namespace kzol {

namespace {

constexpr std::size_t c_pinFileLimit = 4096;

bool readPin(const std::string& path, std::string& pin, std::string& error)
{
    ByteBuffer bytes;
    if (!readFileBytes(path, bytes, error, c_pinFileLimit)) {
        return false;
    }
    pin.assign(bytes.begin(), bytes.end());
    OPENSSL_cleanse(bytes.data(), bytes.size());
    while (!pin.empty() && (pin.back() == '\n' || pin.back() == '\r')) {
        pin.pop_back();
    }
    return true;
}

}  // namespace

// The libp11 context, its module and its slots, released in reverse order.
struct SigningKey::Token {
    PKCS11_CTX* context = nullptr;
    bool loaded = false;
    PKCS11_SLOT* slots = nullptr;
    unsigned int slotCount = 0;

    ~Token()
    {
        if (slots != nullptr) {
            PKCS11_release_all_slots(context, slots, slotCount);
        }
        if (loaded) {
            PKCS11_CTX_unload(context);
        }
        if (context != nullptr) {
            PKCS11_CTX_free(context);
        }
    }
};

SigningKey::SigningKey() = default;

SigningKey::~SigningKey()
{
    m_key.reset();  // before the token that backs it
    m_token.reset();
}

bool SigningKey::load(const std::string& keyName, const TokenOptions& options, std::string& error)
{
    if (!isTokenUri(keyName)) {
        return loadSigningKey(keyName, m_key, error);
    }
    TokenUri uri;
    if (!parseTokenUri(keyName, uri, error)) {
        return false;
    }
    const std::string module = !uri.modulePath.empty() ? uri.modulePath : options.module;
    if (module.empty()) {
        error = "a pkcs11: key needs its module: module-path in the URI, or --module";
        return false;
    }
    std::string pin = uri.pinValue;
    if (pin.empty() && !uri.pinSource.empty() && !readPin(uri.pinSource, pin, error)) {
        return false;
    }
    if (pin.empty() && !options.pinFile.empty() && !readPin(options.pinFile, pin, error)) {
        return false;
    }
    if (const char* fromEnvironment = std::getenv("KZOL_PKCS11_PIN"); pin.empty() && fromEnvironment != nullptr) {
        pin = fromEnvironment;
    }

    m_token = std::make_unique<Token>();
    Token& token = *m_token;
    token.context = PKCS11_CTX_new();
    if (token.context == nullptr) {
        error = withOpensslErrors("cannot set up PKCS#11");
        return false;
    }
    if (PKCS11_CTX_load(token.context, module.c_str()) != 0) {
        error = withOpensslErrors("cannot load the PKCS#11 module " + module);
        return false;
    }
    token.loaded = true;
    if (PKCS11_enumerate_slots(token.context, &token.slots, &token.slotCount) != 0) {
        error = withOpensslErrors("cannot list the slots of " + module);
        return false;
    }
    PKCS11_SLOT* slot = nullptr;
    for (PKCS11_SLOT* s = PKCS11_find_token(token.context, token.slots, token.slotCount); s != nullptr;
         s = PKCS11_find_next_token(token.context, token.slots, token.slotCount, s)) {
        const PKCS11_TOKEN* t = s->token;
        const auto matches = [](const std::string& wanted, const char* have) {
            return wanted.empty() || (have != nullptr && wanted == have);
        };
        if (t != nullptr && t->initialized && matches(uri.token, t->label) && matches(uri.serial, t->serialnr) &&
            matches(uri.manufacturer, t->manufacturer) && matches(uri.model, t->model)) {
            slot = s;
            break;
        }
    }
    if (slot == nullptr) {
        error = "no token" + (uri.token.empty() ? std::string() : " labelled \"" + uri.token + "\"") + " in " + module;
        return false;
    }
    if (slot->token->loginRequired) {
        if (pin.empty()) {
            error = "the token needs a PIN: pin-value or pin-source in the URI, --pin-file, or KZOL_PKCS11_PIN";
            return false;
        }
        const int login = PKCS11_login(slot, 0, pin.c_str());
        OPENSSL_cleanse(pin.data(), pin.size());
        if (login != 0) {
            error = withOpensslErrors("PIN refused by the token");
            return false;
        }
    }
    PKCS11_KEY* keys = nullptr;
    unsigned int keyCount = 0;
    if (PKCS11_enumerate_keys(slot->token, &keys, &keyCount) != 0) {
        error = withOpensslErrors("cannot list the keys of the token");
        return false;
    }
    PKCS11_KEY* found = nullptr;
    unsigned int matching = 0;
    for (unsigned int i = 0; i < keyCount; ++i) {
        PKCS11_KEY& k = keys[i];
        const bool labelOk = uri.object.empty() || (k.label != nullptr && uri.object == k.label);
        const bool idOk = !uri.hasId || (k.id_len == uri.id.size() && std::memcmp(k.id, uri.id.data(), k.id_len) == 0);
        if (k.isPrivate && labelOk && idOk) {
            found = found != nullptr ? found : &k;
            ++matching;
        }
    }
    if (found == nullptr) {
        error = "no private key in the token matches " + keyName.substr(0, keyName.find('?'));
        return false;
    }
    if (matching > 1) {
        error = "more than one private key in the token matches; name one with object= or id=";
        return false;
    }
    m_key.reset(PKCS11_get_private_key(found));
    if (!m_key) {
        error = withOpensslErrors("cannot use the token's key");
        return false;
    }
    if (EVP_PKEY_base_id(m_key.get()) != EVP_PKEY_RSA || EVP_PKEY_bits(m_key.get()) != c_signingKeyBits) {
        m_key.reset();
        error = "the token's key is not an RSA-2048 key";
        return false;
    }
    return true;
}

}  // namespace kzol
