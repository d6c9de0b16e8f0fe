#include "batch_verifier.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>

#include "block_layout.h"
#include "verify_context.h"

namespace kzol {

namespace {

using block_layout::c_blankWindow;
using block_layout::c_footprint;
using block_layout::c_footprintSize;
using block_layout::c_lengthFieldSize;
using block_layout::c_metaFieldSize;
using block_layout::c_tailSize;

// Files up to this size are read whole, in one go, into the worker's buffer;
// larger ones are read in pieces at their positions.
constexpr std::uint64_t c_wholeFileLimit = 128U << 10U;
constexpr std::size_t c_pieceSize = 128U << 10U;
// No supported key's signature is longer: an RSA-2048 signature is 256 bytes,
// 515 characters as a text. A longer text can only fail, and is never held.
constexpr std::uint64_t c_longestText = 16U << 10U;

EvpPkeyPtr parseKey(const std::string& pem)
{
    if (pem.empty() || pem.size() > static_cast<std::size_t>(INT_MAX)) {
        return {};
    }
    const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (!bio) {
        return {};
    }
    EvpPkeyPtr key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    if (key && EVP_PKEY_type(EVP_PKEY_id(key.get())) != EVP_PKEY_RSA) {
        key.reset();
    }
    ERR_clear_error();
    return key;
}

Verdict unreadable(int error)
{
    Verdict verdict;
    verdict.result = BS_NOT_SIGNED;
    verdict.reason = Reason::Unreadable;
    verdict.error = error;
    return verdict;
}

Verdict refused(Result result, Reason reason)
{
    Verdict verdict;
    verdict.result = result;
    verdict.reason = reason;
    return verdict;
}

}  // namespace

// The bytes of one file: in the worker's buffer when it was read whole,
// otherwise read at their positions from the descriptor.
struct BatchVerifier::Source {
    int fd;
    std::uint64_t size;
    const unsigned char* bytes;  // null: read from fd

    bool readAt(std::uint64_t position, void* out, std::size_t count) const
    {
        if (position > size || count > size - position) {
            return false;
        }
        if (bytes != nullptr) {
            std::memcpy(out, bytes + position, count);
            return true;
        }
        auto* to = static_cast<unsigned char*>(out);
        while (count > 0) {
            const ssize_t got = ::pread(fd, to, count, static_cast<off_t>(position));
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return false;
            }
            to += got;
            position += static_cast<std::uint64_t>(got);
            count -= static_cast<std::size_t>(got);
        }
        return true;
    }
};

const char* reasonName(Reason reason)
{
    switch (reason) {
    case Reason::None: return "";
    case Reason::Unreadable: return "unreadable";
    case Reason::NoBlock: return "no-block";
    case Reason::BadLengthField: return "bad-length-field";
    case Reason::WrongType: return "wrong-type";
    case Reason::UnknownSelector: return "unknown-selector";
    case Reason::BadSignatureText: return "bad-signature-text";
    case Reason::HashMismatch: return "hash-mismatch";
    }
    return "";
}

const char* reasonText(Reason reason)
{
    switch (reason) {
    case Reason::None: return "";
    case Reason::Unreadable: return "unreadable";
    case Reason::NoBlock: return "no signature block";
    case Reason::BadLengthField: return "bad length field";
    case Reason::WrongType: return "wrong signature type";
    case Reason::UnknownSelector: return "unknown key selector";
    case Reason::BadSignatureText: return "malformed signature text";
    case Reason::HashMismatch: return "hash mismatch";
    }
    return "";
}

BatchVerifier::BatchVerifier() = default;

bool BatchVerifier::load(const KeySet& keys, std::string& error)
{
    m_key5 = parseKey(keys.pem5);
    m_key6 = parseKey(keys.pem6);
    m_digest.reset(EVP_MD_CTX_new());
    if (!m_digest) {
        error = withOpensslErrors("cannot allocate a digest context");
        return false;
    }
    return true;
}

Verdict BatchVerifier::verifyPath(const std::string& path, bool followLink)
{
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW);
    const UniqueFd fd(::open(path.c_str(), flags));
    if (!fd) {
        return unreadable(errno);
    }
    return verifyDescriptor(fd.get());
}

Verdict BatchVerifier::verifyDescriptor(int fd)
{
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        return unreadable(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return unreadable(S_ISDIR(status.st_mode) ? EISDIR : ENXIO);
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > c_wholeFileLimit) {
        return verifySource(Source{fd, size, nullptr});
    }
    // One read for a small file; the size is what was read, should the file
    // have changed since it was measured.
    m_buffer.resize(static_cast<std::size_t>(size) + 1);
    std::size_t got = 0;
    while (got < m_buffer.size()) {
        const ssize_t n = ::pread(fd, m_buffer.data() + got, m_buffer.size() - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return unreadable(errno);
        }
        if (n == 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    if (got > size) {  // grown meanwhile: read in pieces at its present size
        if (::fstat(fd, &status) != 0) {
            return unreadable(errno);
        }
        return verifySource(Source{fd, static_cast<std::uint64_t>(status.st_size), nullptr});
    }
    return verifySource(Source{fd, got, m_buffer.data()});
}

Verdict BatchVerifier::verifySource(const Source& source)
{
    // Positions are 32-bit: a larger file carries no block.
    if (source.size > std::numeric_limits<std::uint32_t>::max()) {
        return refused(BS_NOT_SIGNED, Reason::NoBlock);
    }
    // Blanks are counted among the last bytes wherever they stand in them.
    std::uint64_t blockEnd = source.size;
    unsigned char last[c_blankWindow];
    if (source.size >= c_blankWindow && source.readAt(source.size - c_blankWindow, last, sizeof(last))) {
        blockEnd -=
            static_cast<std::uint64_t>(std::count_if(last, last + c_blankWindow, block_layout::isTrailingBlank));
    }
    unsigned char footprint[c_footprintSize];
    if (blockEnd < c_footprintSize || !source.readAt(blockEnd - c_footprintSize, footprint, sizeof(footprint)) ||
        std::memcmp(footprint, c_footprint, c_footprintSize) != 0) {
        return refused(BS_NOT_SIGNED, Reason::NoBlock);
    }
    char field[c_lengthFieldSize];
    unsigned int textLength = 0;
    if (blockEnd < c_tailSize || !source.readAt(blockEnd - c_tailSize, field, sizeof(field)) ||
        !block_layout::decodeLengthField(field, textLength)) {
        return refused(BS_NOT_SIGNED, Reason::BadLengthField);
    }
    const std::uint64_t position = blockEnd - c_tailSize;
    // An empty text, or one that leaves no room for content before the
    // metadata, is no block.
    if (position <= textLength || textLength == 0 || position - textLength <= c_metaFieldSize) {
        return refused(BS_NOT_SIGNED, Reason::BadLengthField);
    }
    const std::uint64_t offset = position - textLength;
    unsigned char meta[c_metaFieldSize];
    if (!source.readAt(offset - c_metaFieldSize, meta, sizeof(meta))) {
        return unreadable(EIO);
    }
    if (!block_layout::isSignatureType(static_cast<char>(meta[0]))) {
        return refused(BS_NOT_SIGNED, Reason::WrongType);
    }
    Verdict verdict;
    verdict.selector = static_cast<char>(meta[1]);
    verdict.signedBytes = offset;
    verdict.result = BS_ERROR;
    EVP_PKEY* key = verdict.selector == '5' ? m_key5.get() : verdict.selector == '6' ? m_key6.get() : nullptr;
    if (meta[0] != 'P') {
        verdict.reason = Reason::WrongType;
        return verdict;
    }
    if (key == nullptr) {
        verdict.reason = Reason::UnknownSelector;
        return verdict;
    }

    // The text: "0x", then pairs of hexadecimal digits of either case. An odd
    // count of digits pairs the last one with the terminator, which is no
    // digit; no pair at all leaves no signature to check.
    verdict.reason = Reason::BadSignatureText;
    char prefix[2];
    if (textLength < 2 || !source.readAt(offset, prefix, sizeof(prefix)) || prefix[0] != '0' || prefix[1] != 'x' ||
        textLength % 2 != 0 || textLength == 2) {
        return verdict;
    }
    const bool overlong = textLength > c_longestText;
    m_raw.clear();
    unsigned char piece[4096];
    for (std::uint64_t at = 2; at < textLength;) {
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(sizeof(piece), textLength - at));
        if (!source.readAt(offset + at, piece, count)) {
            verdict.reason = Reason::Unreadable;
            verdict.error = EIO;
            return verdict;
        }
        for (std::size_t i = 0; i < count; i += 2) {
            const int high = hexValue(piece[i]);
            const int low = hexValue(piece[i + 1]);
            if (high < 0 || low < 0) {
                return verdict;
            }
            if (!overlong) {
                m_raw.push_back(static_cast<unsigned char>((high << 4) | low));
            }
        }
        at += count;
    }
    int checked = -1;
    if (overlong) {
        checked = overlongVerdict(key);
    } else if (digestRegion(source, offset)) {
        checked = checkSignature(key, m_raw);
    }
    if (checked < 0) {
        return verdict;
    }
    verdict.result = checked == 1 ? BS_SIGNATURE_CORRECT : BS_SIGNATURE_INCORRECT;
    // A signature of another length than the key's never matches, whatever
    // was signed.
    const bool keySized = !overlong && m_raw.size() == static_cast<std::size_t>(EVP_PKEY_size(key));
    verdict.reason = checked == 1 ? Reason::None : keySized ? Reason::HashMismatch : Reason::BadSignatureText;
    return verdict;
}

bool BatchVerifier::digestRegion(const Source& source, std::uint64_t length)
{
    if (EVP_DigestInit(m_digest.get(), hashType()) != 1) {
        return false;
    }
    if (source.bytes != nullptr) {
        return EVP_DigestUpdate(m_digest.get(), source.bytes, static_cast<std::size_t>(length)) == 1;
    }
    m_buffer.resize(c_pieceSize);
    for (std::uint64_t at = 0; at < length;) {
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(c_pieceSize, length - at));
        if (!source.readAt(at, m_buffer.data(), count) ||
            EVP_DigestUpdate(m_digest.get(), m_buffer.data(), count) != 1) {
            return false;
        }
        at += count;
    }
    return true;
}

// The check of the started digest: 1 match, 0 no match, -1 not carried out.
int BatchVerifier::checkSignature(EVP_PKEY* key, const ByteBuffer& raw)
{
    const int result = EVP_VerifyFinal(m_digest.get(), raw.data(), static_cast<unsigned int>(raw.size()), key);
    ERR_clear_error();
    return result == 1 ? 1 : result == 0 ? 0 : -1;
}

// What the check answers for a signature longer than the key's: learnt from
// OpenSSL itself with one such signature, so that an overlong text gets the
// answer it would get if it were decoded whole.
int BatchVerifier::overlongVerdict(EVP_PKEY* key)
{
    const ByteBuffer raw(c_longestText / 2 + 1, 0x5a);
    if (EVP_DigestInit(m_digest.get(), hashType()) != 1 || EVP_DigestUpdate(m_digest.get(), raw.data(), 1) != 1) {
        return -1;
    }
    return checkSignature(key, raw);
}

}  // namespace kzol
