// The signature block appended to a signed file, read from the end; its
// layout is in block_layout.h. `offset()` is the position of the text, which
// is also the length of the signed region (content and metadata).
#pragma once

#include <cstdio>
#include <string>

#include "block_layout.h"
#include "string_utils.h"

// The two metadata characters of a block: signature type ('L' or 'P') and key
// selector ('5' or '6' select a built-in key). Defined only after a load that
// succeeded.
struct _ZolSigMeta {  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): exported name
    char sigType;
    char keyId;
};

class Signature : public ByteBuffer {
public:
    Signature();
    // A writer's block from an MPI string (with its NUL) and the length of the
    // signed region.
    Signature(const ByteBuffer& text, unsigned int offset);
    Signature(const Signature& other);
    Signature& operator=(const Signature& other);
    ~Signature();

    // Finds and loads the block at the end of the file. On success the text
    // holds the L text bytes and one NUL, and `meta` is filled. A text longer
    // than any key's signature needs (over 16384 bytes) is not read into
    // memory: a short stand-in takes its place that the MPI check answers
    // exactly as it would answer the text itself.
    bool loadFromFile(const std::string& path, _ZolSigMeta& meta);
    // The same from an open stream, positioned anywhere.
    bool loadFromStream(FILE* pFile, _ZolSigMeta& meta);

    [[nodiscard]] unsigned int offset() const;

    // Replaces `out` with what follows the metadata field in a signed file:
    // text, length field and footprint. An empty text yields an empty output.
    void composeSignature(ByteBuffer& out) const;

    // The steps of loadFromFile.
    unsigned int getFileSize(FILE* pFile) const;
    bool checkSignatureFootprint(FILE* pFile, unsigned int position) const;
    bool loadSignatureContent(FILE* pFile, unsigned int position, _ZolSigMeta& meta);
    bool getSignatureInfo(FILE* pFile, unsigned int position, _ZolSigMeta& meta) const;
    bool readFromFile(FILE* pFile, unsigned int position, void* buffer, unsigned int count) const;

private:
    unsigned int m_offset;
    unsigned int m_metaSize;
};

// The engine opens every file it reads through these ("rb"). A read-only
// stream is opened only on a regular file, and opening never waits: a FIFO,
// a device node, a socket or a directory gives null at once, with errno
// ENXIO (EISDIR for a directory). Other modes are plain fopen.
FILE* bs_fopen(const char* path, const char* mode);
void bs_fclose(FILE* pFile);
// The descriptor of a regular file opened for reading as bs_fopen opens it,
// or -1 with errno set.
int openForReading(const char* path);
