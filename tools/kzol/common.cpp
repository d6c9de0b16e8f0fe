#include "common.h"

#include <fcntl.h>
#include <unistd.h>

#include <openssl/err.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>
#include <vector>

namespace kzol {

unsigned int workerCount(unsigned int requested)
{
    return requested != 0 ? requested : std::max(1U, std::thread::hardware_concurrency());
}

void forEachInParallel(std::size_t count, unsigned int jobs, const std::function<void(std::size_t)>& item)
{
    forEachInParallel(count, jobs, [&item](std::size_t index, unsigned int /*worker*/) { item(index); });
}

void forEachInParallel(std::size_t count, unsigned int jobs,
                       const std::function<void(std::size_t index, unsigned int worker)>& item)
{
    std::atomic<std::size_t> next{0};
    const auto work = [&](unsigned int worker) {
        for (std::size_t i = next++; i < count; i = next++) {
            item(i, worker);
        }
    };
    std::vector<std::thread> workers;
    for (unsigned int w = 1; w < jobs && w < count; ++w) {
        workers.emplace_back(work, w);
    }
    work(0);
    for (std::thread& worker : workers) {
        worker.join();
    }
}

int fail(const std::string& message)
{
    return fail(c_exitError, message);
}

int fail(int status, const std::string& message)
{
    std::cerr << "kzol: " << message << std::endl;
    return status;
}

std::string opensslErrors()
{
    std::string text;
    unsigned long code;
    while ((code = ERR_get_error()) != 0) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof(buffer));
        if (!text.empty()) {
            text += "; ";
        }
        text += buffer;
    }
    return text;
}

std::string withOpensslErrors(const std::string& what)
{
    const std::string errors = opensslErrors();
    return errors.empty() ? what : what + ": " + errors;
}

std::string errnoText(int err)
{
    return std::strerror(err);
}

int requireRegularFile(const std::string& path, struct stat* status)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return fail("cannot open " + path + ": " + errnoText(errno));
    }
    if (!S_ISREG(st.st_mode)) {
        return fail(path + " is not a regular file");
    }
    if (status != nullptr) {
        *status = st;
    }
    return c_exitSuccess;
}

bool readFileBytes(const std::string& path, ByteBuffer& bytes, std::string& error, std::size_t limit)
{
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        error = "cannot open " + path + ": " + errnoText(errno);
        return false;
    }
    bytes.clear();
    unsigned char chunk[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), chunk, sizeof(chunk));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = "cannot read " + path + ": " + errnoText(errno);
            return false;
        }
        if (n == 0) {
            return true;
        }
        if (static_cast<std::size_t>(n) > limit - bytes.size()) {
            error = path + " is too large";
            return false;
        }
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
}

std::string resolvedPath(const std::string& path)
{
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
    return resolved ? std::string(resolved.get()) : path;
}

std::string printable(const std::string& bytes)
{
    std::string out;
    for (unsigned char c : bytes) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

std::string printable(char c)
{
    return printable(std::string(1, c));
}

namespace {

// Length of the UTF-8 sequence at `i`, or 0 when it is not a valid one.
std::size_t utf8SequenceLength(const std::string& s, std::size_t i)
{
    const auto byte = [&s](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = byte(i);
    std::size_t length = 0;
    unsigned int value = 0;
    if (c < 0x80) {
        return 1;
    }
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
        value = c & 0x1Fu;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        value = c & 0x0Fu;
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        value = c & 0x07u;
    } else {
        return 0;
    }
    if (i + length > s.size()) {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0u) != 0x80u) {
            return 0;
        }
        value = (value << 6) | (byte(i + k) & 0x3Fu);
    }
    if ((length == 3 && (value < 0x800 || (value >= 0xD800 && value <= 0xDFFF))) ||
        (length == 4 && (value < 0x10000 || value > 0x10FFFF))) {
        return 0;
    }
    return length;
}

}  // namespace

bool isValidUtf8(const std::string& bytes)
{
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t length = utf8SequenceLength(bytes, i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

}  // namespace kzol
