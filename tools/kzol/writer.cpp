#include "writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

#include "signature.h"

namespace kzol {

namespace {

// Hands OpenSSL the passphrase given (none: the key is not decrypted).
int givePassphrase(char* buffer, int size, int /*rwflag*/, void* userdata)
{
    auto* passphrase = static_cast<SecretBytes*>(userdata);
    if (passphrase == nullptr || passphrase->size() == 0 || passphrase->size() > static_cast<std::size_t>(size)) {
        return -1;
    }
    std::memcpy(buffer, passphrase->data(), passphrase->size());
    return static_cast<int>(passphrase->size());
}

bool contains(SecretBytes& bytes, const char* text)
{
    const std::size_t length = std::strlen(text);
    for (std::size_t at = 0; at + length <= bytes.size(); ++at) {
        if (std::memcmp(bytes.data() + at, text, length) == 0) {
            return true;
        }
    }
    return false;
}

// Takes the line end off a secret read from a file or a terminal.
void trimLineEnd(SecretBytes& secret)
{
    std::size_t size = secret.size();
    while (size > 0 && (secret.data()[size - 1] == '\n' || secret.data()[size - 1] == '\r')) {
        secret.data()[--size] = 0;
    }
    secret.resize(size);
}

std::string keyTypeName(int id)
{
    switch (id) {
    case EVP_PKEY_RSA: return "RSA";
    case EVP_PKEY_RSA_PSS: return "RSA-PSS";
    case EVP_PKEY_EC: return "EC";
    case EVP_PKEY_DSA: return "DSA";
    case EVP_PKEY_DH: return "DH";
    case EVP_PKEY_ED25519: return "Ed25519";
    case EVP_PKEY_ED448: return "Ed448";
    default: return "non-RSA";
    }
}

}  // namespace

bool isKeySelector(char keyId)
{
    return keyId == '5' || keyId == '6';
}

void SecretBytes::allocate(std::size_t size)
{
    clear();
    m_bytes.reset(new unsigned char[size + 1]);
    m_capacity = size;
    m_size = 0;
}

void SecretBytes::clear()
{
    if (m_bytes) {
        OPENSSL_cleanse(m_bytes.get(), m_capacity + 1);
    }
    m_bytes.reset();
    m_size = m_capacity = 0;
}

bool readSecretFile(const std::string& path, SecretBytes& secret, std::size_t limit, std::string& error)
{
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0) {
        error = "cannot open " + path + ": " + errnoText(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = path + " is not a regular file";
        return false;
    }
    if (static_cast<std::uint64_t>(status.st_size) > limit) {
        error = path + " is too large";
        return false;
    }
    // One byte more than the size, to see a file that grew.
    const std::size_t room = static_cast<std::size_t>(status.st_size) + 1;
    secret.allocate(room);
    std::size_t done = 0;
    while (done < room) {
        const ssize_t n = ::read(fd.get(), secret.data() + done, room - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            error = "cannot read " + path + ": " + errnoText(errno);
            return false;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    if (done > static_cast<std::size_t>(status.st_size)) {
        error = path + " changed while it was read";
        return false;
    }
    secret.resize(done);
    return true;
}

bool askSecret(const std::string& prompt, SecretBytes& secret, std::string& error)
{
    constexpr std::size_t c_longest = 1024;
    if (::isatty(STDIN_FILENO) == 0) {
        error = "standard input is not a terminal to ask on";
        return false;
    }
    const UniqueFd tty(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    struct termios saved {};
    if (!tty || ::tcgetattr(tty.get(), &saved) != 0) {
        error = "cannot use the terminal: " + errnoText(errno);
        return false;
    }
    struct termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    quiet.c_lflag |= ICANON;
    if (::tcsetattr(tty.get(), TCSAFLUSH, &quiet) != 0) {
        error = "cannot turn off the terminal's echo: " + errnoText(errno);
        return false;
    }
    (void)!::write(tty.get(), prompt.data(), prompt.size());
    secret.allocate(c_longest);
    std::size_t done = 0;
    for (unsigned char c = 0; done < c_longest;) {
        const ssize_t n = ::read(tty.get(), &c, 1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0 || c == '\n') {
            break;
        }
        secret.data()[done++] = c;
    }
    secret.data()[done] = 0;
    ::tcsetattr(tty.get(), TCSAFLUSH, &saved);
    (void)!::write(tty.get(), "\n", 1);
    secret.resize(done);
    return true;
}

bool loadSigningKey(const std::string& path, EvpPkeyPtr& key, std::string& error, const std::string& passFile)
{
    constexpr std::size_t c_keyFileLimit = 1 << 20;  // a PEM key takes a few kilobytes
    SecretBytes pem;
    if (!readSecretFile(path, pem, c_keyFileLimit, error)) {
        return false;
    }
    if (pem.size() == 0) {
        error = path + " is empty: --key needs a PEM private key";
        return false;
    }
    if (contains(pem, "-----BEGIN PUBLIC KEY-----") || contains(pem, "-----BEGIN RSA PUBLIC KEY-----")) {
        error = path + " holds a public key, not an unencrypted PEM private key: --key needs the private key";
        return false;
    }
    SecretBytes passphrase;
    const bool encrypted = contains(pem, "ENCRYPTED");
    if (encrypted && !passFile.empty()) {
        if (!readSecretFile(passFile, passphrase, 4096, error)) {
            return false;
        }
        trimLineEnd(passphrase);
    } else if (encrypted && !askSecret("Passphrase for " + path + ": ", passphrase, error)) {
        error = path + " is encrypted: give its passphrase with --pass-file (" + error + ")";
        return false;
    }
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) {
        error = withOpensslErrors("cannot allocate a memory BIO");
        return false;
    }
    ERR_clear_error();
    key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, givePassphrase, &passphrase));
    if (!key) {
        ERR_clear_error();
        error = encrypted ? path + ": wrong passphrase, or not a PEM private key" : path + ": not a PEM private key";
        return false;
    }
    const int id = EVP_PKEY_base_id(key.get());
    if (id != EVP_PKEY_RSA) {
        error = path + ": " + keyTypeName(id) + " key; signing needs an RSA-2048 key";
        key.reset();
        return false;
    }
    const int bits = EVP_PKEY_bits(key.get());
    if (bits != c_signingKeyBits) {
        error = path + ": RSA key of " + std::to_string(bits) + " bits; signing needs an RSA-2048 key";
        key.reset();
        return false;
    }
    return true;
}

ByteBuffer metadataField(char type, char keyId)
{
    return ByteBuffer{static_cast<unsigned char>(type), static_cast<unsigned char>(keyId),
                      block_layout::c_metaReserved};
}

bool signData(EVP_PKEY* key, const ByteBuffer& data, ByteBuffer& rawSignature, std::string& error)
{
    EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX* pkeyCtx = nullptr;  // owned by ctx
    if (!ctx || EVP_DigestSignInit(ctx.get(), &pkeyCtx, EVP_sha256(), nullptr, key) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(pkeyCtx, RSA_PKCS1_PADDING) <= 0) {
        error = withOpensslErrors("cannot set up RSA/SHA-256 signing");
        return false;
    }
    std::size_t length = 0;
    if (EVP_DigestSignUpdate(ctx.get(), data.data(), data.size()) != 1 ||
        EVP_DigestSignFinal(ctx.get(), nullptr, &length) != 1) {
        error = withOpensslErrors("signing failed");
        return false;
    }
    rawSignature.assign(length, 0);
    if (EVP_DigestSignFinal(ctx.get(), rawSignature.data(), &length) != 1) {
        rawSignature.clear();
        error = withOpensslErrors("signing failed");
        return false;
    }
    rawSignature.resize(length);
    return true;
}

bool verifyData(EVP_PKEY* key, const ByteBuffer& data, const ByteBuffer& rawSignature, std::string& error)
{
    EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX* pkeyCtx = nullptr;  // owned by ctx
    if (!ctx || EVP_DigestVerifyInit(ctx.get(), &pkeyCtx, EVP_sha256(), nullptr, key) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(pkeyCtx, RSA_PKCS1_PADDING) <= 0) {
        error = withOpensslErrors("cannot set up RSA/SHA-256 verification");
        return false;
    }
    if (EVP_DigestVerifyUpdate(ctx.get(), data.data(), data.size()) != 1 ||
        EVP_DigestVerifyFinal(ctx.get(), rawSignature.data(), rawSignature.size()) != 1) {
        error = withOpensslErrors("the signature does not verify");
        return false;
    }
    return true;
}

bool composeBlockTail(const ByteBuffer& rawSignature, std::uint64_t fileSize, ByteBuffer& tail, std::string& error)
{
    ByteBuffer text;
    if (!toMPIString(rawSignature, text)) {
        error = "empty signature";
        return false;
    }
    // text holds the MPI characters and a NUL that the file does not carry.
    const std::uint64_t total = fileSize + (text.size() - 1) + block_layout::c_tailSize;
    if (total > std::numeric_limits<std::uint32_t>::max()) {
        error = "the signed file would exceed 4 GiB, beyond the block's 32-bit positions";
        return false;
    }
    const Signature block(text, static_cast<unsigned int>(fileSize));
    tail.clear();
    block.composeSignature(tail);
    if (tail.size() != text.size() - 1 + block_layout::c_tailSize) {
        error = "the signature block came out malformed";
        return false;
    }
    return true;
}

bool appendBlockTail(const ByteBuffer& rawSignature, ByteBuffer& file, std::string& error)
{
    ByteBuffer tail;
    if (!composeBlockTail(rawSignature, file.size(), tail, error)) {
        return false;
    }
    file.insert(file.end(), tail.begin(), tail.end());
    return true;
}

bool signDigest(EVP_PKEY* key, const unsigned char* digest, std::size_t digestLength, ByteBuffer& rawSignature,
                std::string& error)
{
    EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha256()) <= 0) {
        error = withOpensslErrors("cannot set up RSA/SHA-256 signing");
        return false;
    }
    std::size_t length = 0;
    if (EVP_PKEY_sign(ctx.get(), nullptr, &length, digest, digestLength) != 1) {
        error = withOpensslErrors("signing failed");
        return false;
    }
    rawSignature.assign(length, 0);
    if (EVP_PKEY_sign(ctx.get(), rawSignature.data(), &length, digest, digestLength) != 1) {
        rawSignature.clear();
        error = withOpensslErrors("signing failed");
        return false;
    }
    rawSignature.resize(length);
    EvpPkeyCtxPtr check(EVP_PKEY_CTX_new(key, nullptr));
    if (!check || EVP_PKEY_verify_init(check.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(check.get(), RSA_PKCS1_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_signature_md(check.get(), EVP_sha256()) <= 0 ||
        EVP_PKEY_verify(check.get(), rawSignature.data(), rawSignature.size(), digest, digestLength) != 1) {
        rawSignature.clear();
        error = withOpensslErrors("the fresh signature does not verify with the key's public half");
        return false;
    }
    return true;
}

bool composeSignedFileOver(EVP_PKEY* key, const ByteBuffer& content, const ByteBuffer& signedData, char type,
                           char keyId, ByteBuffer& signedFile, std::string& error)
{
    if (content.empty()) {
        error = "a signed file needs at least one byte of content";
        return false;
    }
    if (!isSignatureType(type) || !isKeySelector(keyId)) {
        error = "bad signature type or key selector";
        return false;
    }
    ByteBuffer raw;
    if (!signData(key, signedData, raw, error)) {
        return false;
    }
    std::string why;
    if (!verifyData(key, signedData, raw, why)) {
        error = "the fresh signature does not verify with its own key (" + why + ")";
        return false;
    }
    ByteBuffer file;
    file.reserve(content.size() + c_metaFieldSize + 2 * raw.size() + 2 + block_layout::c_tailSize);
    file = content;
    const ByteBuffer meta = metadataField(type, keyId);
    file.insert(file.end(), meta.begin(), meta.end());
    if (!appendBlockTail(raw, file, error)) {
        return false;
    }
    signedFile.swap(file);
    return true;
}

bool composeSignedFile(EVP_PKEY* key, const ByteBuffer& content, char type, char keyId, ByteBuffer& signedFile,
                       std::string& error)
{
    ByteBuffer region = content;
    const ByteBuffer meta = metadataField(type, keyId);
    region.insert(region.end(), meta.begin(), meta.end());
    return composeSignedFileOver(key, content, region, type, keyId, signedFile, error);
}

bool loadBlock(int fd, Signature& block, _ZolSigMeta& meta)
{
    const int copy = ::dup(fd);
    FilePtr stream(copy < 0 ? nullptr : ::fdopen(copy, "rb"));
    if (!stream) {
        if (copy >= 0) {
            ::close(copy);
        }
        return false;
    }
    const bool loaded = block.loadFromStream(stream.get(), meta);
    ::lseek(fd, 0, SEEK_SET);
    return loaded;
}

bool blockReadsBack(int fd, std::size_t contentSize, char type, char keyId)
{
    Signature check;
    _ZolSigMeta meta{};
    return loadBlock(fd, check, meta) && check.offset() == contentSize + c_metaFieldSize && meta.sigType == type &&
           meta.keyId == keyId;
}

}  // namespace kzol
