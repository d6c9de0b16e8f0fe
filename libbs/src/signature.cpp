#include "signature.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>

#include "block_layout.h"
#include "handles.h"
#include "log.h"

namespace {

using block_layout::c_blankWindow;
using block_layout::c_footprint;
using block_layout::c_footprintSize;
using block_layout::c_lengthFieldSize;
using block_layout::c_metaFieldSize;
using block_layout::c_tailSize;
// How long a file under a lease is waited for: beyond the kernel's default
// lease-break time of 45 s, after which the file counts as unreadable.
constexpr int c_leaseWaitMs = 60000;
constexpr int c_leaseRetryMs = 10;

inline bool fitsPositions(off_t size)
{
    return static_cast<std::uint64_t>(size) <= std::numeric_limits<std::uint32_t>::max();
}

bool isReadOnlyMode(const char* mode)
{
    return mode[0] == 'r' && std::strchr(mode, '+') == nullptr;
}

// The longest text that is read into memory as it stands: an MPI string of a
// signature by the largest RSA key (16384 bits) is 4098 characters.
constexpr unsigned int c_textBound = 16384;
// Digits of the stand-in for a long text made of digit pairs only: decoded,
// 4096 bytes, which no key's modulus matches.
constexpr std::size_t c_standInDigits = 8192;

// A declared text longer than c_textBound cannot be the signature of any key,
// yet the length field alone makes no block invalid: the text is checked as
// the MPI check would check it. Scanned in pieces from `position`, it is
// replaced in `text` by a short stand-in that the MPI check judges the same
// way, with the same messages: its first two bytes when they are not "0x";
// "0xzz" when a digit pair is invalid (the NUL after an odd count of digits
// included); "0x" and c_standInDigits zeros when every pair is valid, which
// decodes to a signature of a length that no key accepts. The text is read up
// to its first invalid pair; false when that much of it cannot be read.
bool loadLongText(FILE* pFile, unsigned int position, unsigned int length, ByteBuffer& text)
{
    if (fseeko(pFile, static_cast<off_t>(position), SEEK_SET) != 0) {
        return false;
    }
    unsigned char piece[c_textBound];
    unsigned char first[2] = {};
    unsigned int index = 0;
    int high = -1;  // the pending high digit of a pair
    bool invalid = false;
    while (index < length && !invalid) {
        const unsigned int want = std::min(length - index, static_cast<unsigned int>(sizeof(piece)));
        if (std::fread(piece, 1, want, pFile) != want) {
            return false;
        }
        for (unsigned int i = 0; i < want && !invalid; ++i, ++index) {
            if (index < 2) {
                first[index] = piece[i];
                continue;
            }
            const int value = hexValue(piece[i]);
            // An invalid digit, or a high digit whose pair ends in the NUL.
            invalid = value < 0 || (high < 0 && index + 1 == length);
            high = high < 0 ? value : -1;
        }
        if (first[0] != '0' || first[1] != 'x') {
            text.assign(first, first + 2);
            text.push_back('\0');
            return true;
        }
    }
    if (invalid) {
        const unsigned char stand[] = {'0', 'x', 'z', 'z', '\0'};
        text.assign(stand, stand + sizeof(stand));
        return true;
    }
    text.assign(2 + c_standInDigits + 1, '0');
    text[1] = 'x';
    text.back() = '\0';
    return true;
}

}  // namespace

int openForReading(const char* path)
{
    // Without O_NONBLOCK, opening a FIFO would wait for a writer for as long
    // as one chooses not to come, and a device node could wait on its device.
    constexpr int openFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd fd(open(path, openFlags));
    // A regular file under a lease answers a non-blocking open with
    // EWOULDBLOCK once the kernel has begun to break the lease. A blocking
    // open would wait for the break, which the kernel bounds by
    // /proc/sys/fs/lease-break-time; the file is waited for the same way,
    // each try still without blocking, so that a name swapped for a FIFO in
    // the meantime cannot hold the caller.
    for (int waitedMs = 0; !fd && errno == EWOULDBLOCK && waitedMs < c_leaseWaitMs; waitedMs += c_leaseRetryMs) {
        const timespec pause{0, c_leaseRetryMs * 1000000L};
        (void)nanosleep(&pause, nullptr);
        fd.reset(open(path, openFlags));
    }
    if (fd.get() < 0) {
        return -1;
    }
    // The type is taken from the open descriptor itself, so the path cannot
    // be swapped between the test and the use.
    struct stat status {};
    if (fstat(fd.get(), &status) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : ENXIO;
        return -1;
    }
    // Reads of a regular file never wait; the flag goes so that the stream
    // behaves as any other.
    const int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        return -1;
    }
    return fd.release();
}

FILE* bs_fopen(const char* path, const char* mode)
{
    if (path == nullptr || mode == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    if (!isReadOnlyMode(mode)) {
        return std::fopen(path, mode);
    }
    UniqueFd fd(openForReading(path));
    if (fd.get() < 0) {
        return nullptr;
    }
    FILE* stream = fdopen(fd.get(), mode);
    if (stream != nullptr) {
        (void)fd.release();  // the stream owns it now
    }
    return stream;
}

void bs_fclose(FILE* pFile)
{
    if (pFile != nullptr) {
        FileClose()(pFile);
    }
}

Signature::Signature() : m_offset(0), m_metaSize(c_metaFieldSize)
{
}

Signature::Signature(const ByteBuffer& text, unsigned int offset)
    : ByteBuffer(text), m_offset(offset), m_metaSize(c_metaFieldSize)
{
}

Signature::Signature(const Signature& other) : ByteBuffer(other), m_offset(other.m_offset), m_metaSize(c_metaFieldSize)
{
}

Signature& Signature::operator=(const Signature& other)
{
    if (this != &other) {
        ByteBuffer::operator=(other);
        m_offset = other.m_offset;
    }
    return *this;
}

Signature::~Signature() = default;

unsigned int Signature::offset() const
{
    return m_offset;
}

bool Signature::loadFromFile(const std::string& path, _ZolSigMeta& meta)
{
    const FilePtr file(bs_fopen(path.c_str(), "rb"));
    if (file == nullptr) {
        KZOL_LOGE("Signature::loadFromFile(): failed to open [%s] for reading", path.c_str());
        return false;
    }
    return loadFromStream(file.get(), meta);
}

bool Signature::loadFromStream(FILE* pFile, _ZolSigMeta& meta)
{
    const unsigned int blockEnd = getFileSize(pFile);
    // In a file larger than the 32-bit positions reach, every wrapped position
    // still exists; such a file never carries a block.
    if (fseeko(pFile, 0, SEEK_END) != 0) {
        return false;
    }
    const off_t size = ftello(pFile);
    if (size < 0 || !fitsPositions(size) || !checkSignatureFootprint(pFile, blockEnd - c_footprintSize)) {
        return false;
    }
    return loadSignatureContent(pFile, blockEnd - c_tailSize, meta);
}

unsigned int Signature::getFileSize(FILE* pFile) const
{
    if (pFile == nullptr) {
        KZOL_LOGE("Signature::getFileSize(): pFile is NULL");
        return 0;
    }
    if (fseeko(pFile, 0, SEEK_END) != 0) {
        KZOL_LOGE("Signature::%s() fread error ", "getFileSize");
        return 0;
    }
    const off_t end = ftello(pFile);
    // Positions are 32-bit: a file whose size cannot be told or does not fit
    // has no block end. Wrapping the size would read a "block" from the middle
    // of the file and leave its tail outside the signature.
    if (end < 0 || !fitsPositions(end)) {
        KZOL_LOGE("Signature::%s() fread error ", "getFileSize");
        return 0;
    }
    const auto size = static_cast<unsigned int>(end);
    unsigned char last[c_blankWindow];
    if (size < c_blankWindow || fseeko(pFile, static_cast<off_t>(size - c_blankWindow), SEEK_SET) != 0 ||
        std::fread(last, 1, c_blankWindow, pFile) != c_blankWindow) {
        KZOL_LOGE("Signature::%s() fread error ", "getFileSize");
        return size;
    }
    unsigned int blanks = 0;
    for (unsigned char c : last) {
        if (block_layout::isTrailingBlank(c)) {
            ++blanks;
        }
    }
    return size - blanks;
}

bool Signature::checkSignatureFootprint(FILE* pFile, unsigned int position) const
{
    unsigned char bytes[c_footprintSize];
    return readFromFile(pFile, position, bytes, sizeof(bytes)) && std::memcmp(bytes, c_footprint, c_footprintSize) == 0;
}

bool Signature::loadSignatureContent(FILE* pFile, unsigned int position, _ZolSigMeta& meta)
{
    char field[c_lengthFieldSize];
    if (!readFromFile(pFile, position, field, sizeof(field))) {
        return false;
    }
    unsigned int textLength = 0;
    if (!block_layout::decodeLengthField(field, textLength)) {
        return false;
    }
    if (position <= textLength) {
        return false;
    }
    m_offset = position - textLength;

    bool textRead = false;
    if (textLength > c_textBound) {
        textRead = loadLongText(pFile, m_offset, textLength, *this);
    } else {
        resize(textLength);
        // An empty text is a null buffer to readFromFile, which refuses it.
        textRead = readFromFile(pFile, m_offset, empty() ? nullptr : data(), textLength);
        if (textRead) {
            push_back('\0');
        }
    }
    if (m_offset <= m_metaSize) {
        return false;  // no room left for any content before the metadata
    }
    const bool infoRead = getSignatureInfo(pFile, m_offset, meta);
    return textRead && infoRead;
}

bool Signature::getSignatureInfo(FILE* pFile, unsigned int position, _ZolSigMeta& meta) const
{
    unsigned char field[c_metaFieldSize] = {};
    static_assert(sizeof(field) == c_metaFieldSize, "metadata field size");
    if (!readFromFile(pFile, position - m_metaSize, field, m_metaSize)) {
        KZOL_LOGE("Signature::%s(): file to read file", "getSignatureInfo");
        return false;
    }
    const char type = static_cast<char>(field[0]);
    if (!block_layout::isSignatureType(type)) {
        KZOL_LOGE("Signature::%s(): file to read file signature type[%c]", "getSignatureInfo", type);
        return false;
    }
    meta.sigType = type;
    meta.keyId = static_cast<char>(field[1]);
    return true;
}

bool Signature::readFromFile(FILE* pFile, unsigned int position, void* buffer, unsigned int count) const
{
    if (pFile == nullptr || buffer == nullptr) {
        KZOL_LOGE("Signature::readFromFile(): NULL arguments");
        return false;
    }
    if (fseeko(pFile, static_cast<off_t>(position), SEEK_SET) != 0) {
        return false;
    }
    return std::fread(buffer, 1, count, pFile) == count;
}

void Signature::composeSignature(ByteBuffer& out) const
{
    out.clear();
    if (empty()) {
        return;
    }
    const auto textLength = static_cast<unsigned int>(size() - 1);
    out.reserve(textLength + c_tailSize);
    out.assign(begin(), begin() + textLength);
    char field[c_lengthFieldSize];
    block_layout::encodeLengthField(textLength, field);
    out.insert(out.end(), field, field + sizeof(field));
    out.insert(out.end(), c_footprint, c_footprint + c_footprintSize);
}
