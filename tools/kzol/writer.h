// The signing side of the signature block: private keys, raw signatures and
// the bytes of signed files. Used by `kzol sign` for scripts and by the
// commands that sign other data into the same block (a disable certificate
// signs a device identifier).
//
// A signed file is content, metadata field and block as block_layout.h lays
// them out, with the MPI text of the signature; the signature is RSA PKCS#1
// v1.5 over SHA-256 of the signed data. For a script the signed data is the
// content and the metadata field.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "block_layout.h"
#include "common.h"
#include "signature.h"
#include "string_utils.h"

namespace kzol {

constexpr int c_signingKeyBits = 2048;
using block_layout::c_metaFieldSize;
using block_layout::isSignatureType;

// The key selectors that name a built-in public key: '5' or '6'.
bool isKeySelector(char keyId);

// Bytes of a secret (a key's PEM text, a passphrase, a PIN), sized once and
// wiped (OPENSSL_cleanse) before their memory goes back.
class SecretBytes {
public:
    SecretBytes() = default;
    ~SecretBytes() { clear(); }
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    // Room for `size` bytes, allocated once; the old bytes are wiped first.
    void allocate(std::size_t size);
    void clear();
    unsigned char* data() { return m_bytes.get(); }
    std::size_t size() const { return m_size; }
    void resize(std::size_t size) { m_size = size <= m_capacity ? size : m_capacity; }
    std::string text() const { return std::string(reinterpret_cast<const char*>(m_bytes.get()), m_size); }

private:
    std::unique_ptr<unsigned char[]> m_bytes;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

// Reads the whole file `path` (at most `limit` bytes) into `secret` with no
// copy on the way.
bool readSecretFile(const std::string& path, SecretBytes& secret, std::size_t limit, std::string& error);
// Asks for a secret on the terminal, without echo, when standard input is a
// terminal; false (with `error`) otherwise.
bool askSecret(const std::string& prompt, SecretBytes& secret, std::string& error);

// Reads a PEM private key (PKCS#8 or the traditional RSA form) and accepts
// only an RSA key with a 2048-bit modulus. An encrypted key is opened with the
// first line of `passFile`, else with a passphrase asked for on the terminal.
bool loadSigningKey(const std::string& path, EvpPkeyPtr& key, std::string& error,
                    const std::string& passFile = std::string());

// The 3-byte metadata field: type, key selector, the reserved byte.
ByteBuffer metadataField(char type, char keyId);

// RSA PKCS#1 v1.5 signature over the SHA-256 digest of `data`.
bool signData(EVP_PKEY* key, const ByteBuffer& data, ByteBuffer& rawSignature, std::string& error);
// True when `rawSignature` is that signature of `data` for `key` (a private
// key verifies with its public half). `error` says why not.
bool verifyData(EVP_PKEY* key, const ByteBuffer& data, const ByteBuffer& rawSignature, std::string& error);

// Appends the rest of a block to `file`, which already ends with the metadata
// field: the MPI text of `rawSignature`, the length field and the footprint.
// Fails when the result would not fit the block's 32-bit positions.
bool appendBlockTail(const ByteBuffer& rawSignature, ByteBuffer& file, std::string& error);
// The same block tail on its own, for a file whose first `fileSize` bytes
// (ending with the metadata field) were written already.
bool composeBlockTail(const ByteBuffer& rawSignature, std::uint64_t fileSize, ByteBuffer& tail, std::string& error);

// RSA PKCS#1 v1.5 signature of a SHA-256 digest computed elsewhere; the
// signature is checked against the key's public half before it is answered.
bool signDigest(EVP_PKEY* key, const unsigned char* digest, std::size_t digestLength, ByteBuffer& rawSignature,
                std::string& error);

// The signed-file bytes for `content` (at least one byte): the content, the
// metadata field, and a block whose signature covers `signedData`. The
// signature is checked against the key before the bytes are answered.
bool composeSignedFileOver(EVP_PKEY* key, const ByteBuffer& content, const ByteBuffer& signedData, char type,
                           char keyId, ByteBuffer& signedFile, std::string& error);

// The signed-file bytes of a script: the signature covers the content and the
// metadata field, the signed region that the library verifies.
bool composeSignedFile(EVP_PKEY* key, const ByteBuffer& content, char type, char keyId, ByteBuffer& signedFile,
                       std::string& error);

// True when the library's reader loads from the open file `fd` exactly the
// block that was written over `contentSize` bytes of content: the signed
// region ends after the metadata field, with the given type and key selector.
// A written file is checked so before it takes its final name.
bool blockReadsBack(int fd, std::size_t contentSize, char type, char keyId);

// Loads the block at the end of the open file `fd` as the library's reader
// does; fd's offset is set back to the start afterwards.
bool loadBlock(int fd, Signature& block, _ZolSigMeta& meta);

}  // namespace kzol
