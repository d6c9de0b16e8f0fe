// kzol sign: appends a signature block to files, or replaces the one they
// have. Each file is read once, in bounded memory, hashed as it is copied to
// a temporary file beside it, and takes its name only once the library reads
// the new block back. Many files are signed by several workers at once.
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <deque>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "atomic_file.h"
#include "commands.h"
#include "common.h"
#include "keyset.h"
#include "progress.h"
#include "signature.h"
#include "signing_key.h"
#include "token_uri.h"
#include "verify_context.h"
#include "writer.h"

namespace kzol {

namespace {

constexpr std::size_t c_copyChunk = 1 << 20;

struct SignOptions {
    std::string key;
    std::string keyId;
    std::string type = "P";
    std::vector<std::string> files;
    std::string from;
    std::string output;
    bool force = false;
    bool followLinks = false;
    bool removeLeftovers = false;
    unsigned int jobs = 0;  // 0: one per processor
    std::string keyDirectory;
    std::vector<std::string> publicKeys;
    TokenOptions token;
};

enum class Outcome { Signed, Skipped, Failed };

// Lines of several workers, each whole.
std::mutex g_outputMutex;

void say(std::ostream& stream, const std::string& line)
{
    const std::lock_guard<std::mutex> lock(g_outputMutex);
    stream << line << std::endl;
}

struct FileOutcome {
    Outcome outcome;
    int status;  // the single-file exit status
    // A signed file waiting to take its name: commit() gives it.
    std::unique_ptr<AtomicFileWriter> writer = nullptr;
    bool replace = false;
    std::string done;  // the line that says so
};

FileOutcome failed(const std::string& message)
{
    say(std::cerr, "kzol: " + message);
    return {Outcome::Failed, c_exitError, nullptr, false, {}};
}

FileOutcome skipped(const std::string& message)
{
    say(std::cerr, "kzol: " + message);
    return {Outcome::Skipped, c_exitNegative, nullptr, false, {}};
}

// A file that carries a block this run will not replace without --force.
FileOutcome refused(const std::string& message)
{
    say(std::cerr, "kzol: " + message);
    return {Outcome::Failed, c_exitNegative, nullptr, false, {}};
}

// Set by SIGINT or SIGTERM: no file is started after it. Read by every
// worker, so atomic (and lock-free, as a signal handler needs).
std::atomic<int> g_interrupt{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler stores without a lock");

extern "C" void onInterrupt(int signal)
{
    g_interrupt = signal;
}

// Pieces of a large file between the thread that reads and hashes them and
// the one that writes them: hashing and writing take place at the same time,
// and the memory a file takes is these pieces, whatever its size.
constexpr std::size_t c_piecesInFlight = 4;

// Files of at most this many bytes are copied on the calling thread alone:
// a second thread would cost more than it saves.
constexpr std::uint64_t c_writeBehindFrom = 4 * c_copyChunk;

// Ends a thread that waits on `changed` until `done`, if it runs.
void endThread(std::thread& thread, std::mutex& mutex, std::condition_variable& changed, bool& done)
{
    if (thread.joinable()) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        changed.notify_all();
        thread.join();
    }
}

// Part of the file on its way from reading to writing. Its storage is not
// cleared first: read() fills what is used.
struct Piece {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t capacity = 0;
    std::size_t size = 0;
};

// Writes pieces to an AtomicFileWriter in the order given, on a thread of its
// own when `threaded` (and that thread could be started), else at once.
class WriteBehind {
public:
    WriteBehind(AtomicFileWriter& writer, bool threaded) : m_writer(writer)
    {
        if (threaded) {
            try {
                m_thread = std::thread([this] { writeAll(); });
            } catch (const std::system_error&) {
                // written on the calling thread instead
            }
        }
        m_pieces.resize(m_thread.joinable() ? c_piecesInFlight : 1);
        for (Piece& piece : m_pieces) {
            m_free.push_back(&piece);
        }
    }
    ~WriteBehind() { stop(); }
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    // A piece to fill with up to `capacity` bytes; nullptr once a write has
    // failed.
    Piece* take(std::size_t capacity)
    {
        Piece* piece = nullptr;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return !m_free.empty() || m_failed; });
            if (m_failed) {
                return nullptr;
            }
            piece = m_free.front();
            m_free.pop_front();
        }
        if (piece->capacity < capacity) {
            piece->bytes.reset(new unsigned char[capacity]);
            piece->capacity = capacity;
        }
        piece->size = 0;
        return piece;
    }
    // Queues a piece from take() for writing; an empty one goes back unused.
    void give(Piece* piece)
    {
        if (!m_thread.joinable()) {
            writeOne(piece);
            return;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        (piece->size == 0 ? m_free : m_full).push_back(piece);
        m_changed.notify_all();
    }
    // Waits until every piece given is written; false with the first error.
    bool finish(std::string& error)
    {
        stop();
        error = m_error;
        return !m_failed;
    }

private:
    void stop() { endThread(m_thread, m_mutex, m_changed, m_done); }

    void writeAll()
    {
        for (;;) {
            Piece* piece = nullptr;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(lock, [this] { return !m_full.empty() || m_done; });
                if (m_full.empty()) {
                    return;
                }
                piece = m_full.front();
                m_full.pop_front();
            }
            writeOne(piece);
        }
    }

    void writeOne(Piece* piece)
    {
        // m_failed is set only here, by the one thread that writes: read unlocked.
        std::string error;
        const bool written = m_failed || m_writer.write(piece->bytes.get(), piece->size, error);
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!written && !m_failed) {
            m_failed = true;
            m_error = error;
        }
        m_free.push_back(piece);
        m_changed.notify_all();
    }

    AtomicFileWriter& m_writer;
    std::vector<Piece> m_pieces;
    std::deque<Piece*> m_free, m_full;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
    bool m_failed = false;
    std::string m_error;
    std::thread m_thread;
};

// Reads up to `length` bytes (all that is left when `toEnd`) from `fd`,
// hashing them and writing them to `writer`; `copied` counts them. `expected`
// is about how many there are.
bool copyHashing(int fd, std::uint64_t length, bool toEnd, std::uint64_t expected, EVP_MD_CTX* digest,
                 AtomicFileWriter& writer, std::uint64_t& copied, std::string& error)
{
    WriteBehind behind(writer, expected > c_writeBehindFrom);
    // A small file is read whole with one call more to see its end.
    const std::size_t pieceSize = static_cast<std::size_t>(std::min<std::uint64_t>(c_copyChunk, expected + 1));
    copied = 0;
    while (toEnd || copied < length) {
        const std::size_t want =
            toEnd ? pieceSize : static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, length - copied));
        Piece* piece = behind.take(want);
        if (piece == nullptr) {
            break;  // a write failed: finish() says why
        }
        const ssize_t n = ::read(fd, piece->bytes.get(), want);
        const int err = errno;
        if (n > 0) {
            piece->size = static_cast<std::size_t>(n);
            if (EVP_DigestUpdate(digest, piece->bytes.get(), piece->size) != 1) {
                piece->size = 0;
                behind.give(piece);
                error = withOpensslErrors("SHA-256 failed");
                return false;
            }
            copied += piece->size;
        }
        behind.give(piece);
        if (n == 0) {
            break;
        }
        if (n < 0 && err != EINTR) {
            error = "cannot read: " + errnoText(err);
            return false;
        }
    }
    return behind.finish(error);
}

// The directories of a batch, each opened once and shared by the files in
// it while any of them is in flight: every file of a directory is written
// through the one descriptor, and a batch holds few.
class DirectoryCache {
public:
    bool open(const std::string& path, bool followLast, DirectoryEntry& entry, std::string& error)
    {
        const std::string key = directoryOf(path);
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            const auto found = m_open.find(key);
            DirectoryFd directory = found == m_open.end() ? nullptr : found->second.lock();
            const std::size_t slash = path.find_last_of('/');
            const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
            if (directory && name != "." && name != ".." && !name.empty()) {
                struct stat status {};
                // A link as the last component is walked from the start.
                if (::fstatat(directory->get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                    !S_ISLNK(status.st_mode) || !followLast) {
                    entry = {directory, name, path};
                    return true;
                }
            }
        }
        if (!openEntry(path, followLast, entry, error)) {
            return false;
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!entry.throughLink) {
            m_open[key] = entry.directory;
        }
        // Before any temporary file of this run is made in it, a directory
        // is searched once for those that an earlier run left.
        struct stat status {};
        if (::fstat(entry.directory->get(), &status) == 0 && m_searched.insert({status.st_dev, status.st_ino}).second) {
            findLeftovers(entry.directory->get(), directoryOf(path));
        }
        return true;
    }

    // Temporary files of earlier runs, as "DIR/NAME" (removed when asked).
    const std::vector<std::string>& leftovers() const { return m_leftovers; }
    std::size_t removed() const { return m_removed; }
    void removeLeftovers(bool remove) { m_remove = remove; }

private:
    // A name as the writer makes its temporary files: ".NAME.kzol-XXXXXX".
    static bool isTemporaryName(const std::string& name)
    {
        const std::size_t infix = name.rfind(c_temporaryInfix);
        return name.size() > 1 && name[0] == '.' && infix != std::string::npos && infix > 1 &&
               name.size() == infix + std::string(c_temporaryInfix).size() + 6;
    }

    void findLeftovers(int directory, const std::string& shown)
    {
        const int copy = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* listing = copy < 0 ? nullptr : ::fdopendir(copy);
        if (listing == nullptr) {
            if (copy >= 0) {
                ::close(copy);
            }
            return;
        }
        for (const dirent* item = ::readdir(listing); item != nullptr; item = ::readdir(listing)) {
            const std::string name = item->d_name;
            struct stat status {};
            if (!isTemporaryName(name) || ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                !S_ISREG(status.st_mode)) {
                continue;
            }
            if (m_remove && ::unlinkat(directory, name.c_str(), 0) == 0) {
                ++m_removed;
            } else {
                m_leftovers.push_back(shown + "/" + name);
            }
        }
        ::closedir(listing);
    }

    std::mutex m_mutex;
    std::map<std::string, std::weak_ptr<const UniqueFd>> m_open;
    std::set<std::pair<dev_t, ino_t>> m_searched;
    std::vector<std::string> m_leftovers;
    std::size_t m_removed = 0;
    bool m_remove = false;
};

// The signing key's public half, against which an existing block is checked.
struct ResumeCheck {
    std::string publicPem;
};

// Whether the block `block` of the open file `fd` verifies under `publicPem`:
// the signed region is read in pieces, as the library reads it.
bool blockVerifies(int fd, const Signature& block, const std::string& publicPem)
{
    VerifyContext context;
    if (!context.loadPublicKey(publicPem) || !context.init()) {
        return false;
    }
    std::vector<unsigned char> piece(c_copyChunk);
    for (std::uint64_t at = 0; at < block.offset();) {
        const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), block.offset() - at));
        const ssize_t n = ::pread(fd, piece.data(), want, static_cast<off_t>(at));
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        if (!context.update(piece.data(), static_cast<unsigned int>(n))) {
            return false;
        }
        at += static_cast<std::uint64_t>(n);
    }
    bool verified = false;
    return context.checkMPI(block, verified) && verified;
}

// The mode of a new file made from one with `status`: a set-user-ID or
// set-group-ID bit only where the new file keeps that owner or group.
mode_t newFileMode(const struct stat& status)
{
    mode_t mode = status.st_mode & 07777;
    if (status.st_uid != ::geteuid()) {
        mode &= ~static_cast<mode_t>(S_ISUID);
    }
    if (status.st_gid != ::getegid()) {
        mode &= ~static_cast<mode_t>(S_ISGID);
    }
    return mode;
}

// Opens the regular file `entry` names, never through a symbolic link.
bool openRegular(const DirectoryEntry& entry, UniqueFd& fd, struct stat& status, std::string& error)
{
    fd.reset(::openat(entry.directory->get(), entry.name.c_str(),
                      O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) {
        error = errno == ELOOP ? entry.shown + " is a symbolic link; not followed without --follow-links"
                               : "cannot open " + entry.shown + ": " + errnoText(errno);
        return false;
    }
    if (::fstat(fd.get(), &status) != 0) {
        error = "cannot read the status of " + entry.shown + ": " + errnoText(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = entry.shown + " is not a regular file";
        return false;
    }
    return true;
}

// Signs `file` into a temporary file beside its destination; the outcome
// carries the writer that commit() finishes with. Every step acts on the
// directory and the file opened once.
FileOutcome prepare(const SignOptions& options, EVP_PKEY* key, const ResumeCheck& resume, const std::string& file,
                    DirectoryCache& directories)
{
    const char type = options.type[0];
    const char keyId = options.keyId[0];
    std::string error;
    DirectoryEntry source;
    UniqueFd fd;
    struct stat input {};
    if (!directories.open(file, options.followLinks, source, error) || !openRegular(source, fd, input, error)) {
        return failed(error);
    }
    if (static_cast<std::uint64_t>(input.st_size) >= std::numeric_limits<std::uint32_t>::max()) {
        return failed(file + " is too large: block positions are 32-bit");
    }

    // A file the library already reads a block from is signed only once; with
    // --force its block goes and the content before the old metadata field is
    // signed afresh.
    Signature existing;
    _ZolSigMeta existingMeta{};
    bool replacing = false;
    std::uint64_t contentLength = 0;
    if (loadBlock(fd.get(), existing, existingMeta)) {
        // Without --force, a file is left alone only when its block is this
        // key's and verifies: a block of another key, a broken or tampered one
        // fails the file.
        if (!options.force) {
            const std::string block =
                " (type " + printable(existingMeta.sigType) + ", key " + printable(existingMeta.keyId) + ")";
            if (!blockVerifies(fd.get(), existing, resume.publicPem)) {
                return refused(file + " carries a block" + block +
                               " that does not verify under the signing key: signed with another key, or "
                               "changed since; use --force to re-sign it");
            }
            if (existingMeta.sigType != type || existingMeta.keyId != keyId) {
                return refused(file + " carries a block of this key" + block + " that differs from type " + type +
                               ", key " + keyId + "; use --force to re-sign it");
            }
            return {Outcome::Skipped, c_exitNegative, nullptr, false,
                    file + " already carries a block of this key that verifies; nothing to do"};
        }
        if (existing.offset() < c_metaFieldSize + 1) {
            return failed(file + " has a block but no content before it");
        }
        contentLength = existing.offset() - c_metaFieldSize;
        replacing = true;
    }

    // Where the result goes, and the file it replaces (if any), whose owner,
    // mode and extended attributes the result keeps.
    DirectoryEntry destination = source;
    UniqueFd replacedFd;
    struct stat replaced = input;
    bool destinationExists = true;
    if (!options.output.empty()) {
        if (!directories.open(options.output, options.followLinks, destination, error)) {
            return failed(error);
        }
        struct stat out {};
        if (::fstatat(destination.directory->get(), destination.name.c_str(), &out, AT_SYMLINK_NOFOLLOW) == 0) {
            if (S_ISLNK(out.st_mode)) {
                return failed(options.output +
                              " already exists as a symbolic link; not followed without --follow-links");
            }
            if (S_ISDIR(out.st_mode)) {
                return failed(options.output + " is a directory");
            }
            const bool sameFile = out.st_dev == input.st_dev && out.st_ino == input.st_ino;
            if (!sameFile && !options.force) {
                return skipped(options.output + " exists; use --force to overwrite it");
            }
            if (!openRegular(destination, replacedFd, replaced, error)) {
                return failed(error);
            }
        } else if (errno == ENOENT) {
            destinationExists = false;
        } else {
            return failed("cannot use " + options.output + ": " + errnoText(errno));
        }
    }
    const int replacedDescriptor = replacedFd ? replacedFd.get() : fd.get();
    if (destinationExists && replaced.st_nlink > 1 && !options.force) {
        return failed(destination.shown + " has " + std::to_string(replaced.st_nlink) +
                      " hard links; not replaced (--force replaces this name only: its other links keep the old "
                      "content)");
    }

    auto writerOwner = std::make_unique<AtomicFileWriter>();
    AtomicFileWriter& writer = *writerOwner;
    if (!writer.begin(destination, newFileMode(input), error)) {
        return failed(error);
    }
    const EvpMdCtxPtr digest(EVP_MD_CTX_new());
    if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1) {
        return failed(withOpensslErrors("cannot start SHA-256"));
    }
    std::uint64_t copied = 0;
    if (!copyHashing(fd.get(), contentLength, !replacing, static_cast<std::uint64_t>(input.st_size), digest.get(),
                     writer, copied, error)) {
        return failed(file + ": " + error);
    }
    if (replacing && copied != contentLength) {
        return failed(file + " changed while it was read");
    }
    if (copied == 0) {
        return failed(file + " is empty: a signed file needs at least one byte of content");
    }
    const ByteBuffer meta = metadataField(type, keyId);
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int hashLength = 0;
    if (EVP_DigestUpdate(digest.get(), meta.data(), meta.size()) != 1 ||
        EVP_DigestFinal_ex(digest.get(), hash, &hashLength) != 1) {
        return failed(withOpensslErrors("SHA-256 failed"));
    }
    ByteBuffer raw, tail;
    const std::uint64_t signedRegion = copied + c_metaFieldSize;
    if (!writer.write(meta, error) || !signDigest(key, hash, hashLength, raw, error) ||
        !composeBlockTail(raw, signedRegion, tail, error) || !writer.write(tail, error)) {
        return failed(file + ": " + error);
    }
    // The library's reader must find exactly the new block before the file
    // takes the destination's name.
    if (!blockReadsBack(writer.descriptor(), static_cast<std::size_t>(copied), type, keyId)) {
        return failed("the library does not read the new block back; " + destination.shown + " left as it was");
    }
    if ((destinationExists && !writer.keepAttributesOf(replacedDescriptor, replaced, error)) ||
        !writer.finishWriting(error)) {
        return failed(error);
    }
    return {Outcome::Signed, c_exitSuccess, std::move(writerOwner), destinationExists,
            std::string(replacing ? "re-signed " : "signed ") + file +
                (options.output.empty() ? "" : " into " + options.output) + ": type " + type + ", key " + keyId +
                ", signed region " + std::to_string(signedRegion) + " bytes"};
}

// Gives a prepared file its name; `flushed`: its file system is flushed
// already, and the caller flushes the directory.
FileOutcome commit(FileOutcome prepared, bool flushed)
{
    if (!prepared.writer) {
        return prepared;
    }
    std::string error;
    if (!(flushed ? prepared.writer->commitFlushed(prepared.replace, error)
                  : prepared.writer->commit(prepared.replace, error))) {
        return failed(error);
    }
    say(std::cout, prepared.done);
    return {prepared.outcome, prepared.status, nullptr, false, {}};
}

// Makes the prepared files durable with one flush of each file system they
// are on, then gives them their names; the directories where names changed
// are added to `directories`, for the caller to flush. Whatever fails stays
// as it was.
void commitTogether(std::vector<FileOutcome>& prepared, std::set<DirectoryFd>& directories)
{
    std::vector<dev_t> flushedDevices;
    std::string flushError;
    for (const FileOutcome& file : prepared) {
        if (!file.writer || !flushError.empty()) {
            continue;
        }
        const int fd = file.writer->directory()->get();
        struct stat status {};
        if (::fstat(fd, &status) != 0) {
            flushError =
                "cannot read the status of the directory of " + file.writer->destination() + ": " + errnoText(errno);
        } else if (std::find(flushedDevices.begin(), flushedDevices.end(), status.st_dev) == flushedDevices.end()) {
            if (::syncfs(fd) != 0) {
                flushError = "cannot flush the file system of " + file.writer->destination() + ": " + errnoText(errno);
            }
            flushedDevices.push_back(status.st_dev);
        }
    }
    for (FileOutcome& file : prepared) {
        if (file.writer && !flushError.empty()) {
            file = failed(flushError + "; " + file.writer->destination() + " left as it was");
            continue;
        }
        const DirectoryFd directory = file.writer ? file.writer->directory() : nullptr;
        file = commit(std::move(file), true);
        if (file.outcome == Outcome::Signed) {
            directories.insert(directory);
        }
    }
}

// Group commit for a batch: the workers hand in prepared files, and one
// thread gives names to all that have come in since its last round, after
// one flush for all of them, while the workers go on. A disk's flush latency
// is then paid once a round instead of twice a file, and the renames (one at
// a time within a directory) run beside the signing. The directories are
// flushed once, at the end: by the time the batch ends, every name is on disk.
class Committer {
public:
    Committer()
    {
        try {
            m_thread = std::thread([this] { commitAll(); });
        } catch (const std::system_error&) {
            // each file is committed as it comes in
        }
    }
    ~Committer() { finish(); }
    Committer(const Committer&) = delete;
    Committer& operator=(const Committer&) = delete;

    void add(FileOutcome prepared)
    {
        if (!m_thread.joinable()) {
            std::vector<FileOutcome> one;
            one.push_back(std::move(prepared));
            std::set<DirectoryFd> directories;
            commitTogether(one, directories);
            const std::lock_guard<std::mutex> lock(m_mutex);  // workers add at once
            record(one, directories);
            return;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_waiting.size() < c_mostWaiting; });
        m_waiting.push_back(std::move(prepared));
        // The committing thread waits for a first file, or for a round's worth.
        if (m_waiting.size() == 1 || m_waiting.size() >= c_mostWaiting / 2) {
            m_changed.notify_all();
        }
    }
    // Commits what is left; then count() tells every file's outcome.
    void finish()
    {
        endThread(m_thread, m_mutex, m_changed, m_done);
        for (const DirectoryFd& directory : m_directories) {
            syncDirectory(directory->get());
        }
        m_directories.clear();
    }
    std::size_t count(Outcome outcome) const { return m_counts[static_cast<int>(outcome)]; }

private:
    void commitAll()
    {
        for (;;) {
            std::vector<FileOutcome> round;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(lock, [this] { return !m_waiting.empty() || m_done; });
                if (m_waiting.empty()) {
                    return;
                }
                // A round gathers files for a moment, so that one flush
                // serves many: flushing is quick when little is waiting, and
                // a round a file would make this thread the slowest part.
                m_changed.wait_for(lock, c_gathering,
                                   [this] { return m_waiting.size() >= c_mostWaiting / 2 || m_done; });
                round.swap(m_waiting);
            }
            m_changed.notify_all();
            std::set<DirectoryFd> directories;
            commitTogether(round, directories);
            record(round, directories);
        }
    }

    void record(const std::vector<FileOutcome>& files, const std::set<DirectoryFd>& directories)
    {
        for (const FileOutcome& file : files) {
            ++m_counts[static_cast<int>(file.outcome)];
        }
        m_directories.insert(directories.begin(), directories.end());
        // Each holds a descriptor: many are flushed before the end.
        if (m_directories.size() >= c_mostDirectoriesHeld) {
            for (const DirectoryFd& directory : m_directories) {
                syncDirectory(directory->get());
            }
            m_directories.clear();
        }
    }

    static constexpr std::chrono::milliseconds c_gathering{5};
    static constexpr std::size_t c_mostDirectoriesHeld = 64;
    // Files waiting at most: the workers wait beyond it. Each has a temporary
    // file on disk (closed) until its round.
    static constexpr std::size_t c_mostWaiting = 256;
    std::vector<FileOutcome> m_waiting;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
    // By the committing thread, or by add() (locked) when there is none.
    std::size_t m_counts[3] = {0, 0, 0};
    std::set<DirectoryFd> m_directories;  // names changed here: flushed once, at the end
    std::thread m_thread;
};

// Checks the key against the known public keys before any file is touched:
// the other selector's key is refused, an unknown one warned about.
int checkKey(const SignOptions& options, EVP_PKEY* key)
{
    std::string fingerprintHex, error;
    if (!fingerprint(key, fingerprintHex, error)) {
        return fail(error);
    }
    KeySet known;
    std::string source = "built-in";
    if (!options.keyDirectory.empty() || !options.publicKeys.empty()) {
        if (!loadKeySet(options.keyDirectory, options.publicKeys, known, error)) {
            return fail(error);
        }
        source = "given";
    } else {
        known = builtInKeys();
    }
    const char selector = options.keyId[0];
    const char other = selector == '5' ? '6' : '5';
    std::string mine, theirs;
    if (!known.pem(selector).empty() && !fingerprintOfPem(known.pem(selector), mine, error)) {
        return fail(error);
    }
    if (!known.pem(other).empty() && !fingerprintOfPem(known.pem(other), theirs, error)) {
        return fail(error);
    }
    std::cout << "signing key: SHA256:" << fingerprintHex << "\n";
    if (const std::string warning = developmentKeyWarning(key); !warning.empty()) {
        std::cout << std::flush;
        std::cerr << warning << std::endl;
    }
    if (fingerprintHex == theirs) {
        return fail(redactedKeyName(options.key) + " is the private half of the " + source + " key " + other +
                    ", not of key " + selector + ": its signatures would never verify; use --key-id " + other);
    }
    if (fingerprintHex != mine) {
        std::cerr << "kzol: warning: " << redactedKeyName(options.key) << " matches neither " << source
                  << " public key; its signatures verify only where its public half is built in as key " << selector
                  << std::endl;
    }
    return c_exitSuccess;
}

bool readList(const std::string& from, std::vector<std::string>& files, std::string& error)
{
    std::ifstream stream;
    if (from != "-") {
        stream.open(from);
        if (!stream) {
            error = "cannot read " + from + ": " + errnoText(errno);
            return false;
        }
    }
    std::istream& in = from == "-" ? std::cin : stream;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (!line.empty()) {
            files.push_back(line);
        }
    }
    if (in.bad()) {
        error = "cannot read " + from;
        return false;
    }
    return true;
}

// The public half of `key` as PEM text.
bool publicHalfPem(EVP_PKEY* key, std::string& pem, std::string& error)
{
    const BioPtr bio(BIO_new(BIO_s_mem()));
    char* text = nullptr;
    long length = 0;
    if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1 || (length = BIO_get_mem_data(bio.get(), &text)) <= 0) {
        error = withOpensslErrors("cannot encode the signing key's public half");
        return false;
    }
    pem.assign(text, static_cast<std::size_t>(length));
    return true;
}

// Each file once, in the order first named: the same file under two names
// (by device and inode, or by name when it cannot be looked up) is signed once.
void removeDuplicates(std::vector<std::string>& files)
{
    std::set<std::pair<dev_t, ino_t>> seenFiles;
    std::set<std::string> seenNames;
    std::vector<std::string> unique;
    for (std::string& file : files) {
        struct stat status {};
        const bool fresh = ::stat(file.c_str(), &status) == 0 ? seenFiles.insert({status.st_dev, status.st_ino}).second
                                                              : seenNames.insert(file).second;
        if (fresh) {
            unique.push_back(std::move(file));
        }
    }
    files.swap(unique);
}

// Lists the temporary files that an earlier run left (after SIGKILL or a
// crash), a few by name, and how to remove them.
void reportLeftovers(const DirectoryCache& directories)
{
    if (directories.removed() != 0) {
        std::cerr << "kzol: removed " << directories.removed() << " temporary file(s) left by an earlier run"
                  << std::endl;
    }
    const std::vector<std::string>& left = directories.leftovers();
    if (left.empty()) {
        return;
    }
    constexpr std::size_t c_named = 5;
    for (std::size_t i = 0; i < left.size() && i < c_named; ++i) {
        std::cerr << "kzol: left by an earlier run: " << left[i] << std::endl;
    }
    std::cerr << "kzol: " << left.size() << " temporary file(s) left by an earlier, interrupted run"
              << (left.size() > c_named ? " (" + std::to_string(left.size() - c_named) + " not named)" : "")
              << "; run again with --remove-leftovers to remove them" << std::endl;
}

int runSign(const SignOptions& options)
{
    if (options.type != "P" && !options.force) {
        return fail("type " + options.type + " blocks select no key in the library: files signed so are never " +
                    "verified and always refused; use --force to write one anyway");
    }
    std::vector<std::string> files = options.files;
    std::string error;
    if (!options.from.empty() && !readList(options.from, files, error)) {
        return fail(error);
    }
    if (files.empty()) {
        return fail("no file to sign: name FILEs or --from a list");
    }
    const bool batch = files.size() > 1 || !options.from.empty();
    if (batch && !options.output.empty()) {
        return fail("-o takes one FILE");
    }

    SigningKey key;
    if (!key.load(options.key, options.token, error)) {
        return fail(error);
    }
    if (const int status = checkKey(options, key.get()); status != c_exitSuccess) {
        return status;
    }
    ResumeCheck resume;
    if (!publicHalfPem(key.get(), resume.publicPem, error)) {
        return fail(error);
    }
    removeDuplicates(files);

    // SIGINT and SIGTERM end the batch between files: those in flight are
    // finished, no other is started, no temporary file stays. A second one
    // ends the process at once.
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);

    DirectoryCache directories;
    directories.removeLeftovers(options.removeLeftovers);
    int status = c_exitSuccess;
    int interrupted = 0;
    if (!batch) {
        FileOutcome prepared = prepare(options, key.get(), resume, files.front(), directories);
        if (prepared.outcome == Outcome::Skipped && !prepared.done.empty()) {
            say(std::cerr, "kzol: " + prepared.done);  // quiet in a batch only
        }
        interrupted = g_interrupt;
        if (interrupted == 0) {
            status = commit(std::move(prepared), false).status;
        }
    } else {
        const unsigned int jobs = key.inToken() ? 1U : workerCount(options.jobs);  // a token signs one at a time
        Committer committer;
        std::atomic<std::size_t> started{0};
        Progress progress(files.size(), ::isatty(STDOUT_FILENO) != 1);  // not over the lines of the signed files
        forEachInParallel(files.size(), jobs, [&](std::size_t i) {
            if (g_interrupt == 0) {
                ++started;
                committer.add(prepare(options, key.get(), resume, files[i], directories));
                progress.advance();
            }
        });
        progress.finish();
        committer.finish();
        interrupted = g_interrupt;  // once: a signal after this changes nothing
        const std::size_t failures = committer.count(Outcome::Failed);
        std::cout << (interrupted != 0 ? "interrupted: " : "") << committer.count(Outcome::Signed) << " signed, "
                  << committer.count(Outcome::Skipped) << " skipped, " << failures << " failed"
                  << (interrupted != 0 ? ", " + std::to_string(files.size() - started) + " not started" : "")
                  << std::endl;
        status = failures == 0 ? c_exitSuccess : c_exitNegative;
    }
    reportLeftovers(directories);
    if (interrupted != 0) {
        if (!batch) {
            std::cout << "interrupted: " << files.front() << " left as it was" << std::endl;
        }
        return 128 + interrupted;
    }
    return status;
}

}  // namespace

void addSignCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<SignOptions>();
    CLI::App* cmd = app.add_subcommand("sign", "Append a signature block to files");
    cmd->add_option("FILE", options->files, "Files to sign (each replaced atomically unless -o is given)");
    cmd->add_option("--from", options->from,
                    "Also sign the files listed in this file, one path a line (- for standard input)");
    cmd->add_option("--key", options->key, "RSA-2048 private key: a PEM file or a pkcs11: URI")->required();
    cmd->add_option("--key-id", options->keyId, "Key selector the block names: 5 or 6")
        ->required()
        ->check(CLI::IsMember({"5", "6"}));
    cmd->add_option("--type", options->type, "Signature type character: P (default); L only with --force")
        ->check(CLI::IsMember({"P", "L"}));
    cmd->add_option("-o,--output", options->output, "Write the signed file here instead of replacing FILE (one FILE)");
    cmd->add_flag("--force", options->force,
                  "Replace an existing block; overwrite an existing -o file; allow --type L");
    cmd->add_flag("--follow-links", options->followLinks,
                  "Sign the file a symbolic link at FILE (or at -o) names, opened once, instead of refusing it");
    cmd->add_flag("--remove-leftovers", options->removeLeftovers,
                  "Remove the temporary files (.NAME.kzol-XXXXXX) an interrupted earlier run left in the "
                  "directories of the files signed");
    cmd->add_option("-j,--jobs", options->jobs, "Files signed at once (default: one per processor)")
        ->check(CLI::Range(1U, 256U));
    cmd->add_option("--keys", options->keyDirectory,
                    "Public keys the key is checked against (default: the built-in ones)");
    cmd->add_option("--pubkey", options->publicKeys, "5=FILE or 6=FILE: a public key the key is checked against")
        ->allow_extra_args(false);
    cmd->add_option("--module", options->token.module, "PKCS#11 module for a pkcs11: key without module-path");
    cmd->add_option("--pin-file", options->token.pinFile,
                    "File holding the token's PIN (else pin-value, KZOL_PKCS11_PIN, or asked for on a terminal)");
    cmd->add_option("--pass-file", options->token.passFile,
                    "File whose first line is the passphrase of an encrypted PEM key (else asked for on a terminal)");
    cmd->footer("The block signs the file's bytes and the metadata (type, key selector) with RSA PKCS#1 v1.5\n"
                "over SHA-256. A replaced file keeps its owner, group, permission bits and extended attributes\n"
                "(when they cannot be kept it is not replaced); a new -o file gets FILE's permission bits, without\n"
                "set-user-ID or set-group-ID unless it has FILE's owner or group. Directories are opened one\n"
                "component at a time without following links others own; a symbolic link at FILE or at -o is\n"
                "refused without --follow-links; a file with several hard links is replaced only with --force. The key "
                "is checked first: the private\n"
                "half of the other selector's key is refused; one that matches neither known key is warned about.\n"
                "A file that already carries a block is skipped (quietly, counted) only when the block verifies\n"
                "under the signing key and names the same type and selector; any other block (another key,\n"
                "broken, changed since signing) fails that file unless --force re-signs it. A file named twice is\n"
                "signed once. SIGINT or SIGTERM: files in flight are finished, none is started, no temporary\n"
                "file stays; the summary says \"interrupted\" (exit 130 or 143). Temporary files an earlier run\n"
                "left (after SIGKILL) are listed; --remove-leftovers removes them.\n"
                "Exit status, one FILE: 0 signed; 1 FILE already carries a block (of this key, or one that does not\n"
                "verify) or the -o file exists (nothing written); 2 usage or I/O error (nothing written).\n"
                "Several FILEs or --from: a line \"N signed, N skipped, N failed\"; 0 when none failed, 1 otherwise.\n"
                "Every signed file is on disk before it takes its name: one FILE is flushed on its own; several\n"
                "take their names in rounds, after one flush of their file system (syncfs) for each round.\n");
    // The key's name may be a pkcs11: URI that holds the token's PIN.
    cmd->callback([options, &status]() {
        status = runSign(*options);
        wipe(options->key);
    });
}

}  // namespace kzol
