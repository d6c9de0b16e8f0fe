// Owners of every handle the library, the kzol tool, the tests and the fuzz
// targets hold: descriptors, standard I/O streams, malloc'd storage from C
// interfaces, and OpenSSL objects. Each handle has exactly one owner, which
// releases it with the matching function on every way out of its scope,
// an exception or a thread's cancellation included.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

// Holds off the thread's cancellation for its scope. close and fclose are
// cancellation points, and they run in destructors, which must not throw: a
// cancellation acted on there would end the process instead of the thread.
// Held off, it is acted on at the next cancellation point after the release.
class CancellationHeldOff {
public:
    CancellationHeldOff() noexcept { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_state); }
    ~CancellationHeldOff() { (void)pthread_setcancelstate(m_state, nullptr); }
    CancellationHeldOff(const CancellationHeldOff&) = delete;
    CancellationHeldOff& operator=(const CancellationHeldOff&) = delete;

private:
    int m_state = PTHREAD_CANCEL_ENABLE;
};

// A file descriptor; -1 holds none.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : m_fd(fd) {}
    // Keeps errno: the failure that made a function give up is what its
    // caller reads, not the close on the way out.
    ~UniqueFd()
    {
        const int error = errno;
        (void)close();
        errno = error;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }

    [[nodiscard]] int get() const noexcept { return m_fd; }
    explicit operator bool() const noexcept { return m_fd >= 0; }
    // Hands the descriptor on; nothing is held afterwards.
    int release() noexcept
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    // Closes the descriptor held (keeping errno) and takes `fd`.
    void reset(int fd = -1) noexcept
    {
        const int error = errno;
        (void)close();
        errno = error;
        m_fd = fd;
    }
    // Closes now and answers whether close succeeded; true when none is held.
    // Nothing is held afterwards in either case.
    bool close() noexcept
    {
        if (m_fd < 0) {
            return true;
        }
        const CancellationHeldOff heldOff;
        return ::close(release()) == 0;
    }

private:
    int m_fd = -1;
};

struct FileClose {
    void operator()(FILE* p) const noexcept
    {
        const CancellationHeldOff heldOff;
        (void)std::fclose(p);
    }
};
// A standard I/O stream, closed with fclose.
using FilePtr = std::unique_ptr<FILE, FileClose>;

struct MallocFree {
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): storage that C interfaces hand over in malloc'd memory
    void operator()(void* p) const noexcept { std::free(p); }
};
// Storage from malloc, calloc or a C interface that hands its result over.
template <typename T> using MallocPtr = std::unique_ptr<T, MallocFree>;

struct EvpPkeyFree {
    void operator()(EVP_PKEY* p) const noexcept { EVP_PKEY_free(p); }
};
struct EvpPkeyCtxFree {
    void operator()(EVP_PKEY_CTX* p) const noexcept { EVP_PKEY_CTX_free(p); }
};
struct EvpMdCtxFree {
    void operator()(EVP_MD_CTX* p) const noexcept { EVP_MD_CTX_free(p); }
};
struct BioFree {
    void operator()(BIO* p) const noexcept { BIO_free_all(p); }
};
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxFree>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
