// kzol keygen: the two key pairs of a deployment, for key selectors 5 and 6.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <memory>
#include <vector>

#include "atomic_file.h"
#include "commands.h"
#include "common.h"
#include "signing_key.h"
#include "token_uri.h"
#include "writer.h"

namespace kzol {

namespace {

// The public key form the library's build accepts: an RSA-2048
// SubjectPublicKeyInfo (294 DER bytes) as one line of 392 base64 characters
// between the BEGIN and END lines, 445 characters in all.
constexpr std::size_t c_publicKeyDerSize = 294;
constexpr std::size_t c_publicKeyBase64Size = 392;
constexpr std::size_t c_publicKeyPemSize = 445;
const char* const c_pemBegin = "-----BEGIN PUBLIC KEY-----\n";
const char* const c_pemEnd = "-----END PUBLIC KEY-----\n";

constexpr mode_t c_privateKeyMode = 0600;
constexpr mode_t c_publicKeyMode = 0644;
constexpr mode_t c_keyDirectoryMode = 0700;

struct KeygenOptions {
    std::string directory;
    bool force = false;
};

// A ByteBuffer wiped before its memory goes back, for private key texts.
struct SecretBuffer {
    ByteBuffer bytes;
    SecretBuffer() = default;
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;
    ~SecretBuffer() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

struct KeyPairFiles {
    char selector;
    std::string privatePath;
    std::string publicPath;
    SecretBuffer privatePem;
    ByteBuffer publicPem;
};

bool generateRsaKey(EvpPkeyPtr& key, std::string& error)
{
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    EVP_PKEY* raw = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), c_signingKeyBits) <= 0 || EVP_PKEY_keygen(ctx.get(), &raw) != 1) {
        error = withOpensslErrors("RSA key generation failed");
        return false;
    }
    key.reset(raw);
    return true;
}

bool privateKeyPem(EVP_PKEY* key, SecretBuffer& pem, std::string& error)
{
    BioPtr bio(BIO_new(BIO_s_secmem()));
    if (!bio || PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        error = withOpensslErrors("cannot encode the private key");
        return false;
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    if (size <= 0 || data == nullptr) {
        error = "cannot encode the private key";
        return false;
    }
    pem.bytes.assign(data, data + size);
    return true;
}

bool publicKeyPem(EVP_PKEY* key, ByteBuffer& pem, std::string& error)
{
    const int derSize = i2d_PUBKEY(key, nullptr);
    if (derSize <= 0) {
        error = withOpensslErrors("cannot encode the public key");
        return false;
    }
    ByteBuffer der(static_cast<std::size_t>(derSize));
    unsigned char* out = der.data();
    if (i2d_PUBKEY(key, &out) != derSize) {
        error = withOpensslErrors("cannot encode the public key");
        return false;
    }
    if (der.size() != c_publicKeyDerSize) {
        error = "the generated public key takes " + std::to_string(der.size()) + " DER bytes instead of " +
                std::to_string(c_publicKeyDerSize);
        return false;
    }
    char base64[c_publicKeyBase64Size];
    base64_encode(reinterpret_cast<const char*>(der.data()), static_cast<unsigned int>(der.size()), base64,
                  sizeof(base64));
    const std::string text = std::string(c_pemBegin) + std::string(base64, sizeof(base64)) + "\n" + c_pemEnd;
    if (text.size() != c_publicKeyPemSize) {
        error = "the public key text came out with " + std::to_string(text.size()) + " characters";
        return false;
    }
    pem.assign(text.begin(), text.end());
    return true;
}

std::string baseName(const std::string& path)
{
    return path.substr(path.find_last_of('/') + 1);
}

int runKeygen(const KeygenOptions& options)
{
    std::string dir = options.directory;
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    std::string error;
    if (!makeDirectories(dir, c_keyDirectoryMode, error)) {
        return fail(error);
    }
    DirectoryEntry directory;
    if (!openDirectoryEntry(dir, directory, error)) {
        return fail(error);
    }
    dir = resolvedPath(dir);  // for the lines that name the files

    std::vector<std::unique_ptr<KeyPairFiles>> pairs;
    for (char selector : {'5', '6'}) {
        auto pair = std::make_unique<KeyPairFiles>();
        pair->selector = selector;
        pair->privatePath = dir + "/private_key_" + selector + ".pem";
        pair->publicPath = dir + "/public_key_" + selector + ".pem";
        pairs.push_back(std::move(pair));
    }

    // All or nothing: one existing file stops the run before any key is made.
    if (!options.force) {
        std::vector<std::string> existing;
        for (const auto& pair : pairs) {
            for (const std::string* path : {&pair->privatePath, &pair->publicPath}) {
                struct stat st {};
                if (::fstatat(directory.directory->get(), baseName(*path).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
                    existing.push_back(*path);
                }
            }
        }
        if (!existing.empty()) {
            std::string list;
            for (const auto& path : existing) {
                list += (list.empty() ? "" : ", ") + path;
            }
            return fail(c_exitNegative, "key files exist, nothing written (use --force to replace them): " + list);
        }
    }

    for (auto& pair : pairs) {
        EvpPkeyPtr key;
        if (!generateRsaKey(key, error) || !privateKeyPem(key.get(), pair->privatePem, error) ||
            !publicKeyPem(key.get(), pair->publicPem, error)) {
            return fail(error);
        }
    }

    // Without --force, files this run created are taken back when a later
    // write fails, so no half set of keys stays behind.
    struct Output {
        const std::string* path;
        const ByteBuffer* bytes;
        mode_t mode;
    };
    std::vector<Output> outputs;
    for (const auto& pair : pairs) {
        outputs.push_back({&pair->privatePath, &pair->privatePem.bytes, c_privateKeyMode});
        outputs.push_back({&pair->publicPath, &pair->publicPem, c_publicKeyMode});
    }
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        const DirectoryEntry file{directory.directory, baseName(*outputs[i].path), *outputs[i].path};
        if (!writeFileAtomic(file, *outputs[i].bytes, outputs[i].mode, options.force, error)) {
            for (std::size_t k = 0; k < i && !options.force; ++k) {
                ::unlinkat(directory.directory->get(), baseName(*outputs[k].path).c_str(), 0);
            }
            return fail(error);
        }
    }

    for (const auto& pair : pairs) {
        std::cout << "wrote " << pair->privatePath << " (private key " << pair->selector
                  << ", mode 0600: keep it secret)\n"
                  << "wrote " << pair->publicPath << " (public key " << pair->selector << ")\n";
    }
    std::cout << "Build the library with these public keys:\n"
              << "  -DKZOL_PUBLIC_KEY_5=" << pairs[0]->publicPath << " -DKZOL_PUBLIC_KEY_6=" << pairs[1]->publicPath
              << "\n";
    return c_exitSuccess;
}

struct PubkeyOptions {
    std::string key;
    std::string output;
    bool force = false;
    TokenOptions token;
};

// A public key file in any PEM form (SubjectPublicKeyInfo or PKCS#1), as
// `openssl pkey -pubout` and `openssl rsa -RSAPublicKey_out` write them.
bool loadPublicPem(const std::string& path, EvpPkeyPtr& key, std::string& error)
{
    ByteBuffer text;
    if (!readFileBytes(path, text, error, 1 << 20)) {
        return false;
    }
    BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    key.reset(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key && bio) {
        BioPtr again(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        RSA* rsa = again ? PEM_read_bio_RSAPublicKey(again.get(), nullptr, nullptr, nullptr) : nullptr;
        if (rsa != nullptr) {
            key.reset(EVP_PKEY_new());
            if (!key || EVP_PKEY_assign_RSA(key.get(), rsa) != 1) {
                RSA_free(rsa);
                key.reset();
            }
        }
    }
    ERR_clear_error();
    if (!key) {
        error = path + ": not a PEM public key";
        return false;
    }
    if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA || EVP_PKEY_bits(key.get()) != c_signingKeyBits) {
        error = path + ": not an RSA-2048 key";
        return false;
    }
    return true;
}

int runPubkey(const PubkeyOptions& options)
{
    std::string error;
    EvpPkeyPtr publicKey;
    SigningKey signingKey;
    EVP_PKEY* key = nullptr;
    // A private key's text is read as a secret: wiped after the look.
    SecretBytes text;
    bool isPublic = false;
    if (!isTokenUri(options.key) && readSecretFile(options.key, text, 1 << 20, error)) {
        const char marker[] = "PUBLIC KEY-----";
        isPublic = std::search(text.data(), text.data() + text.size(), marker, marker + sizeof(marker) - 1) !=
                   text.data() + text.size();
    }
    text.clear();
    if (isPublic) {
        if (!loadPublicPem(options.key, publicKey, error)) {
            return fail(error);
        }
        key = publicKey.get();
    } else {
        if (!signingKey.load(options.key, options.token, error)) {
            return fail(error);
        }
        key = signingKey.get();
    }
    ByteBuffer pem;
    if (!publicKeyPem(key, pem, error)) {
        return fail(error);
    }
    if (const char development = developmentKeyOf(key); development != 0) {
        std::cerr << "kzol: warning: this is the DEVELOPMENT key " << development
                  << " of the source tree (keys/dev): never build a release with it" << std::endl;
    }
    if (options.output.empty()) {
        std::cout.write(reinterpret_cast<const char*>(pem.data()), static_cast<std::streamsize>(pem.size()));
        std::cout.flush();
        return std::cout ? c_exitSuccess : fail("cannot write the public key");
    }
    if (!writeFileAtomic(options.output, pem, c_publicKeyMode, options.force, error)) {
        return fail(error.find("already exists") != std::string::npos ? c_exitNegative : c_exitError,
                    error + (error.find("already exists") != std::string::npos ? "; use --force to replace it" : ""));
    }
    std::cerr << "wrote " << options.output << ": build with -DKZOL_PUBLIC_KEY_N=" << options.output << std::endl;
    return c_exitSuccess;
}

}  // namespace

void addKeygenCommand(CLI::App& app, int& status)
{
    auto pubkey = std::make_shared<PubkeyOptions>();
    CLI::App* pub = app.add_subcommand("pubkey", "Write a public key in the form the library's build takes");
    pub->add_option("KEY", pubkey->key, "A PEM private or public key, or a pkcs11: URI")->required();
    pub->add_option("-o,--output", pubkey->output, "File to write (default: standard output)");
    pub->add_flag("--force", pubkey->force, "Replace an existing output file");
    pub->add_option("--module", pubkey->token.module, "PKCS#11 module for a pkcs11: key without module-path");
    pub->add_option("--pin-file", pubkey->token.pinFile, "File holding the token's PIN");
    pub->add_option("--pass-file", pubkey->token.passFile, "File whose first line is the PEM key's passphrase");
    pub->footer("The output is the RSA-2048 SubjectPublicKeyInfo as one line of 392 base64 characters between\n"
                "the BEGIN and END lines, 445 characters in all: pass it as -DKZOL_PUBLIC_KEY_5=FILE or\n"
                "-DKZOL_PUBLIC_KEY_6=FILE. Any PEM public key (openssl pkey -pubout, openssl rsa\n"
                "-RSAPublicKey_out) or private key converts. Exit status: 0 written; 1 the output exists;\n"
                "2 unreadable key or bad usage.\n");
    // The key's name may be a pkcs11: URI that holds the token's PIN.
    pub->callback([pubkey, &status]() {
        status = runPubkey(*pubkey);
        wipe(pubkey->key);
    });

    auto options = std::make_shared<KeygenOptions>();
    CLI::App* cmd = app.add_subcommand("keygen", "Create the RSA-2048 key pairs for key selectors 5 and 6");
    cmd->add_option("DIR", options->directory, "Directory for the key files (created if needed)")->required();
    cmd->add_flag("--force", options->force, "Replace existing key files");
    cmd->footer("Writes private_key_5.pem, public_key_5.pem, private_key_6.pem and public_key_6.pem.\n"
                "Private keys are PKCS#8 PEM with mode 0600. Public keys are in the 445-character form\n"
                "the library's build accepts (-DKZOL_PUBLIC_KEY_5=... -DKZOL_PUBLIC_KEY_6=...).\n"
                "Exit status: 0 written; 1 key files exist (nothing written); 2 usage or I/O error.\n");
    cmd->callback([options, &status]() { status = runKeygen(*options); });
}

}  // namespace kzol
