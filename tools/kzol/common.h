// Pieces shared by the kzol commands: exit statuses, error reporting, RAII
// handles (the library's owner types), whole-file reading and the
// printable form of raw bytes.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "handles.h"
#include "string_utils.h"

namespace kzol {

using ::BioPtr;
using ::EvpMdCtxPtr;
using ::EvpPkeyCtxPtr;
using ::EvpPkeyPtr;
using ::FilePtr;
using ::UniqueFd;

// Exit statuses of every command.
constexpr int c_exitSuccess = 0;
constexpr int c_exitNegative = 1;  // the question was answered "no", or the work was refused as already done
constexpr int c_exitError = 2;     // bad usage, unreadable input, failed output

// Writes "kzol: <message>" and a line feed to standard error; answers c_exitError.
int fail(const std::string& message);
// The same, answering `status`.
int fail(int status, const std::string& message);

// Drains OpenSSL's error queue of this thread into one line ("" when empty).
std::string opensslErrors();
// `what`, followed by ": " and the drained OpenSSL errors when there are any.
std::string withOpensslErrors(const std::string& what);

// The text of errno value `err`.
std::string errnoText(int err);
// c_exitSuccess when `path` names a regular file (its status in `status`
// when given); otherwise reports why not and answers c_exitError.
int requireRegularFile(const std::string& path, struct stat* status = nullptr);

// The number of workers for -j N: N, or one per core when N is 0.
unsigned int workerCount(unsigned int requested);
// Calls `item` once for every index below `count`, spread over `jobs`
// threads, the calling one among them; returns when every call has.
void forEachInParallel(std::size_t count, unsigned int jobs, const std::function<void(std::size_t)>& item);
// The same, telling each call which worker (below `jobs`) makes it, so that a
// worker can keep state of its own from call to call.
void forEachInParallel(std::size_t count, unsigned int jobs,
                       const std::function<void(std::size_t index, unsigned int worker)>& item);

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

// True when `bytes` is valid UTF-8 (no overlong forms, surrogates or values
// above U+10FFFF).
bool isValidUtf8(const std::string& bytes);

}  // namespace kzol
