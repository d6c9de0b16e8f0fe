#include "signing_key.h"

#include <libp11.h>
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "dev_keys.h"
#include "keyset.h"
#include "writer.h"

namespace kzol {

namespace {

constexpr std::size_t c_pinFileLimit = 4096;

// The PIN as the first line of `source`.
void takeLine(SecretBytes& source, SecretBytes& pin)
{
    std::size_t length = 0;
    while (length < source.size() && source.data()[length] != '\n' && source.data()[length] != '\r') {
        ++length;
    }
    pin.allocate(length);
    std::memcpy(pin.data(), source.data(), length);
    pin.resize(length);
    pin.data()[length] = 0;
}

bool readPin(const std::string& path, SecretBytes& pin, std::string& error)
{
    SecretBytes bytes;
    if (!readSecretFile(path, bytes, c_pinFileLimit, error)) {
        return false;
    }
    takeLine(bytes, pin);
    return true;
}

void copyPin(const char* text, SecretBytes& pin)
{
    const std::size_t length = std::strlen(text);
    pin.allocate(length);
    std::memcpy(pin.data(), text, length + 1);
    pin.resize(length);
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

char developmentKeyOf(EVP_PKEY* key)
{
    std::string mine, error;
    return fingerprint(key, mine, error) ? developmentKeyOfFingerprint(mine) : 0;
}

char developmentKeyOfFingerprint(const std::string& mine)
{
    std::string development, error;
    for (const char selector : {'5', '6'}) {
        if (fingerprintOfPem(selector == '5' ? c_devPublicKey5 : c_devPublicKey6, development, error) &&
            development == mine) {
            return selector;
        }
    }
    return 0;
}

std::string developmentKeyWarning(EVP_PKEY* key)
{
    const char selector = developmentKeyOf(key);
    return selector == 0 ? std::string()
                         : std::string("kzol: warning: this is the DEVELOPMENT key ") + selector +
                               " of the source tree (keys/dev): its private half is public, so what it signs "
                               "proves nothing; never sign a release with it";
}

SigningKey::SigningKey() = default;

SigningKey::~SigningKey()
{
    m_key.reset();  // before the token that backs it
    m_token.reset();
}

bool SigningKey::load(const std::string& keyName, const TokenOptions& options, std::string& error)
{
    if (!isTokenUri(keyName)) {
        return loadSigningKey(keyName, m_key, error, options.passFile);
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
    // The PIN lives in one wiped buffer; the copies it came from are wiped
    // as soon as it is taken (the URI's, and the environment's).
    SecretBytes pin;
    if (!uri.pinValue.empty()) {
        copyPin(uri.pinValue.c_str(), pin);
        wipe(uri.pinValue);
    }
    if (pin.size() == 0 && !uri.pinSource.empty() && !readPin(uri.pinSource, pin, error)) {
        return false;
    }
    if (pin.size() == 0 && !options.pinFile.empty() && !readPin(options.pinFile, pin, error)) {
        return false;
    }
    if (char* fromEnvironment = std::getenv("KZOL_PKCS11_PIN"); fromEnvironment != nullptr) {
        if (pin.size() == 0) {
            copyPin(fromEnvironment, pin);
        }
        OPENSSL_cleanse(fromEnvironment, std::strlen(fromEnvironment));
        ::unsetenv("KZOL_PKCS11_PIN");
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
        std::string why;
        if (pin.size() == 0 && !askSecret("PIN of token " + uri.token + ": ", pin, why)) {
            error = "the token needs a PIN: pin-value or pin-source in the URI, --pin-file, or KZOL_PKCS11_PIN";
            return false;
        }
        const int login = PKCS11_login(slot, 0, reinterpret_cast<const char*>(pin.data()));
        pin.clear();
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
        error = "no private key in the token matches " + redactedKeyName(keyName.substr(0, keyName.find('?')));
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
