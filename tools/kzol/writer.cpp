#include "writer.h"

#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdint>
#include <limits>

#include "signature.h"

namespace kzol {

namespace {

// Refuses to ask for a passphrase: the tool runs unattended as often as not.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*rwflag*/, void* /*userdata*/)
{
    return -1;
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

bool loadSigningKey(const std::string& path, EvpPkeyPtr& key, std::string& error)
{
    constexpr std::size_t c_keyFileLimit = 1 << 20;  // a PEM key takes a few kilobytes
    ByteBuffer pem;
    if (!readFileBytes(path, pem, error, c_keyFileLimit)) {
        return false;
    }
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) {
        error = withOpensslErrors("cannot allocate a memory BIO");
        return false;
    }
    ERR_clear_error();
    key.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassphrase, nullptr));
    OPENSSL_cleanse(pem.data(), pem.size());
    if (!key) {
        error = withOpensslErrors(path + ": not an unencrypted PEM private key");
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
