// kzol sign: appends a signature block to files, or replaces the one they
// have. Each file is read once, in bounded memory, hashed as it is copied to
// a temporary file beside it, and takes its name only once the library reads
// the new block back. Many files are signed by several workers at once.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fstream>
#include <iostream>
#include <limits>
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

// Signs `file` into a temporary file beside its destination; the outcome
// carries the writer that commit() finishes with.
FileOutcome prepare(const SignOptions& options, EVP_PKEY* key, const std::string& file)
{
    const char type = options.type[0];
    const char keyId = options.keyId[0];
    struct stat input {};
    if (::stat(file.c_str(), &input) != 0) {
        return failed("cannot open " + file + ": " + errnoText(errno));
    }
    if (!S_ISREG(input.st_mode)) {
        return failed(file + " is not a regular file");
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
    if (existing.loadFromFile(file, existingMeta)) {
        if (!options.force) {
            return skipped(file + " already carries a signature block (type " + printable(existingMeta.sigType) +
                           ", key " + printable(existingMeta.keyId) + "); use --force to replace it");
        }
        if (existing.offset() < c_metaFieldSize + 1) {
            return failed(file + " has a block but no content before it");
        }
        contentLength = existing.offset() - c_metaFieldSize;
        replacing = true;
    }

    // Where the result goes. In place, a symbolic link is followed so that the
    // file it names is replaced, not the link.
    std::string destination;
    bool destinationExists = true;
    if (options.output.empty()) {
        destination = resolvedPath(file);
    } else {
        struct stat out {};
        if (::stat(options.output.c_str(), &out) == 0) {
            if (S_ISDIR(out.st_mode)) {
                return failed(options.output + " is a directory");
            }
            const bool sameFile = out.st_dev == input.st_dev && out.st_ino == input.st_ino;
            if (!sameFile && !options.force) {
                return skipped(options.output + " exists; use --force to overwrite it");
            }
            destination = resolvedPath(options.output);
        } else if (errno == ENOENT) {
            destination = options.output;
            destinationExists = false;
        } else {
            return failed("cannot use " + options.output + ": " + errnoText(errno));
        }
    }

    const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return failed("cannot open " + file + ": " + errnoText(errno));
    }
    std::string error;
    auto writerOwner = std::make_unique<AtomicFileWriter>();
    AtomicFileWriter& writer = *writerOwner;
    if (!writer.begin(destination, input.st_mode & 07777, error)) {
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
    if (!blockReadsBack(writer.temporaryPath(), static_cast<std::size_t>(copied), type, keyId)) {
        return failed("the library does not read the new block back; " + destination + " left as it was");
    }
    if (!writer.finishWriting(error)) {
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
void commitTogether(std::vector<FileOutcome>& prepared, std::set<std::string>& directories)
{
    std::vector<dev_t> flushedDevices;
    std::string flushError;
    for (const FileOutcome& file : prepared) {
        if (!file.writer || !flushError.empty()) {
            continue;
        }
        const std::string directory = directoryOf(file.writer->temporaryPath());
        const UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct stat status {};
        if (!fd || ::fstat(fd.get(), &status) != 0) {
            flushError = "cannot open " + directory + ": " + errnoText(errno);
        } else if (std::find(flushedDevices.begin(), flushedDevices.end(), status.st_dev) == flushedDevices.end()) {
            if (::syncfs(fd.get()) != 0) {
                flushError = "cannot flush the file system of " + directory + ": " + errnoText(errno);
            }
            flushedDevices.push_back(status.st_dev);
        }
    }
    for (FileOutcome& file : prepared) {
        if (file.writer && !flushError.empty()) {
            file = failed(flushError + "; " + file.writer->destination() + " left as it was");
            continue;
        }
        const std::string directory = file.writer ? directoryOf(file.writer->destination()) : std::string();
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
            std::set<std::string> directories;
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
        for (const std::string& directory : m_directories) {
            syncDirectory(directory);
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
            std::set<std::string> directories;
            commitTogether(round, directories);
            record(round, directories);
        }
    }

    void record(const std::vector<FileOutcome>& files, const std::set<std::string>& directories)
    {
        for (const FileOutcome& file : files) {
            ++m_counts[static_cast<int>(file.outcome)];
        }
        m_directories.insert(directories.begin(), directories.end());
    }

    static constexpr std::chrono::milliseconds c_gathering{5};
    // Files waiting at most: the workers wait beyond it. Each has a temporary
    // file on disk (closed) until its round.
    static constexpr std::size_t c_mostWaiting = 256;
    std::vector<FileOutcome> m_waiting;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false;
    // By the committing thread, or by add() (locked) when there is none.
    std::size_t m_counts[3] = {0, 0, 0};
    std::set<std::string> m_directories;  // names changed here: flushed once, at the end
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
    if (fingerprintHex == theirs) {
        return fail(options.key + " is the private half of the " + source + " key " + other + ", not of key " +
                    selector + ": its signatures would never verify; use --key-id " + other);
    }
    if (fingerprintHex != mine) {
        std::cerr << "kzol: warning: " << options.key << " matches neither " << source
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
    if (!batch) {
        return commit(prepare(options, key.get(), files.front()), false).status;
    }

    const unsigned int jobs = key.inToken() ? 1U : workerCount(options.jobs);  // a token signs one at a time
    Committer committer;
    Progress progress(files.size(), ::isatty(STDOUT_FILENO) != 1);  // not over the lines of the signed files
    forEachInParallel(files.size(), jobs, [&](std::size_t i) {
        committer.add(prepare(options, key.get(), files[i]));
        progress.advance();
    });
    progress.finish();
    committer.finish();
    const std::size_t failures = committer.count(Outcome::Failed);
    std::cout << committer.count(Outcome::Signed) << " signed, " << committer.count(Outcome::Skipped) << " skipped, "
              << failures << " failed" << std::endl;
    return failures == 0 ? c_exitSuccess : c_exitNegative;
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
    cmd->add_option("-j,--jobs", options->jobs, "Files signed at once (default: one per processor)")
        ->check(CLI::Range(1U, 256U));
    cmd->add_option("--keys", options->keyDirectory,
                    "Public keys the key is checked against (default: the built-in ones)");
    cmd->add_option("--pubkey", options->publicKeys, "5=FILE or 6=FILE: a public key the key is checked against")
        ->allow_extra_args(false);
    cmd->add_option("--module", options->token.module, "PKCS#11 module for a pkcs11: key without module-path");
    cmd->add_option("--pin-file", options->token.pinFile,
                    "File holding the token's PIN (else pin-value, or KZOL_PKCS11_PIN)");
    cmd->footer("The block signs the file's bytes and the metadata (type, key selector) with RSA PKCS#1 v1.5\n"
                "over SHA-256. The result keeps FILE's permission bits. The key is checked first: the private\n"
                "half of the other selector's key is refused; one that matches neither known key is warned about.\n"
                "Exit status, one FILE: 0 signed; 1 refused because FILE already carries a block or the -o file\n"
                "exists (nothing written); 2 usage or I/O error (nothing written).\n"
                "Several FILEs or --from: a line \"N signed, N skipped, N failed\"; 0 when none failed, 1 otherwise.\n"
                "Every signed file is on disk before it takes its name: one FILE is flushed on its own; several\n"
                "take their names in rounds, after one flush of their file system (syncfs) for each round.\n");
    cmd->callback([options, &status]() { status = runSign(*options); });
}

}  // namespace kzol
