// Pieces shared by the kzol commands: exit statuses, error reporting, RAII
// handles for descriptors and OpenSSL objects, whole-file reading and the
// printable form of raw bytes.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>
#include <string>

#include "string_utils.h"

namespace kzol {

// Exit statuses of every command.
constexpr int c_exitSuccess = 0;
constexpr int c_exitNegative = 1;  // the question was answered "no", or the work was refused as already done
constexpr int c_exitError = 2;     // bad usage, unreadable input, failed output

// Writes "kzol: <message>" and a line feed to standard error; answers c_exitError.
int fail(const std::string& message);
// The same, answering `status`.
int fail(int status, const std::string& message);

// A file descriptor closed on destruction.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd();
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    // Closes now and answers whether close succeeded.
    bool close();
    // Closes the current descriptor and takes `fd`.
    void reset(int fd)
    {
        close();
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

struct EvpPkeyFree {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct EvpPkeyCtxFree {
    void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
};
struct EvpMdCtxFree {
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct BioFree {
    void operator()(BIO* p) const { BIO_free_all(p); }
};
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxFree>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;

// Drains OpenSSL's error queue of this thread into one line ("" when empty).
std::string opensslErrors();
// `what`, followed by ": " and the drained OpenSSL errors when there are any.
std::string withOpensslErrors(const std::string& what);

// The text of errno value `err`.
std::string errnoText(int err);

// Reads the whole file into `bytes`; a file longer than `limit` bytes is refused.
bool readFileBytes(const std::string& path, ByteBuffer& bytes, std::string& error,
                   std::size_t limit = static_cast<std::size_t>(-1));

// The canonical absolute form of an existing path (symbolic links resolved);
// the path itself when it cannot be resolved.
std::string resolvedPath(const std::string& path);

// Raw bytes for a terminal: printable ASCII as is, backslash doubled, every
// other byte as \xNN.
std::string printable(const std::string& bytes);
std::string printable(char c);

}  // namespace kzol
