// Verification of many files with the keys parsed once: one BatchVerifier per
// worker holds the two parsed public keys, a digest context and a read buffer
// that every file reuses. Its verdict for a file is the library's
// (BSContext::verifyFileWithKeys with the same key texts): the block is found
// from the end by the same rules, the same key is selected, the same bytes are
// digested and the same signature text is decoded and checked. It adds why a
// file failed, and it never holds a signature text longer than any supported
// key's signature can be.
#pragma once

#include <cstdint>
#include <string>

#include "bs_context.h"
#include "common.h"
#include "keyset.h"

namespace kzol {

// Why a file did not verify.
enum class Reason {
    None,              // BS_SIGNATURE_CORRECT
    Unreadable,        // cannot be opened or read, or not a regular file (the library: BS_NOT_SIGNED)
    NoBlock,           // no ":ZOL" footprint at the end (BS_NOT_SIGNED)
    BadLengthField,    // the length field is not one, or names a text that does not fit (BS_NOT_SIGNED)
    WrongType,         // a type other than 'P' (BS_NOT_SIGNED, or BS_ERROR for 'L')
    UnknownSelector,   // a selector other than '5' and '6', or one without a key (BS_ERROR)
    BadSignatureText,  // no "0x" hexadecimal text (BS_ERROR), or not of the key's size (BS_SIGNATURE_INCORRECT)
    HashMismatch,      // the signature does not match the signed bytes (BS_SIGNATURE_INCORRECT)
};

// "no-block", "hash-mismatch", ... ("" for None); and the words for a person.
const char* reasonName(Reason reason);
const char* reasonText(Reason reason);

struct Verdict {
    Result result = BS_ERROR;
    Reason reason = Reason::None;
    char selector = 0;              // the block's key selector; 0 when no block was found
    std::uint64_t signedBytes = 0;  // length of the signed region; 0 when no block was found
    int error = 0;                  // errno, for Reason::Unreadable
};

class BatchVerifier {
public:
    BatchVerifier();
    // Parses the key texts as the library does; an empty or unparsable one
    // selects nothing. False only when OpenSSL cannot be set up.
    bool load(const KeySet& keys, std::string& error);

    // Opens `path` (a symbolic link at its end followed only when
    // `followLink`), without waiting on a FIFO or device, and verifies it.
    Verdict verifyPath(const std::string& path, bool followLink);
    // The regular file open on `fd`, read at positions of its own.
    Verdict verifyDescriptor(int fd);

private:
    struct Source;
    Verdict verifySource(const Source& source);
    bool digestRegion(const Source& source, std::uint64_t length);
    int checkSignature(EVP_PKEY* key, const ByteBuffer& raw);
    int overlongVerdict(EVP_PKEY* key);

    EvpPkeyPtr m_key5;
    EvpPkeyPtr m_key6;
    EvpMdCtxPtr m_digest;
    ByteBuffer m_buffer;
    ByteBuffer m_raw;
};

}  // namespace kzol
