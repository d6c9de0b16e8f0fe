#include "atomic_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <vector>

namespace kzol {

std::string directoryOf(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool makeDirectories(const std::string& path, mode_t mode, std::string& error)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            error = path + " exists and is not a directory";
            return false;
        }
        return true;
    }
    const std::string parent = directoryOf(path);
    if (parent != path && !makeDirectories(parent, mode, error)) {
        return false;
    }
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
        error = "cannot create directory " + path + ": " + errnoText(errno);
        return false;
    }
    return true;
}

namespace {

// link() errors that say the file system has no hard links.
bool noHardLinks(int err)
{
    return err == EPERM || err == EOPNOTSUPP || err == ENOSYS || err == EMLINK;
}

// Written bytes beyond which the disk is asked to start taking them: a large
// file goes to disk while it is written, and the flush at the commit finds
// little left to do.
constexpr std::uint64_t c_writebackStep = 8 << 20;

// Symbolic links a walk follows at most, as the kernel's own limit.
constexpr int c_mostLinks = 40;

void splitInto(const std::string& path, std::deque<std::string>& components, bool atFront)
{
    std::deque<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        const std::size_t end = slash == std::string::npos ? path.size() : slash;
        if (end > start) {
            parts.push_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    if (atFront) {
        components.insert(components.begin(), parts.begin(), parts.end());
    } else {
        components.insert(components.end(), parts.begin(), parts.end());
    }
}

bool readLink(int directory, const std::string& name, std::string& target)
{
    std::vector<char> buffer(256);
    for (;;) {
        const ssize_t n = ::readlinkat(directory, name.c_str(), buffer.data(), buffer.size());
        if (n < 0) {
            return false;
        }
        if (static_cast<std::size_t>(n) < buffer.size()) {
            target.assign(buffer.data(), static_cast<std::size_t>(n));
            return true;
        }
        buffer.resize(buffer.size() * 2);
    }
}

// The process's root directory, reached by climbing from the working
// directory until ".." leads nowhere else, not by the name "/": a user-mode
// emulator (qemu-arm with a target's sysroot, as the armhf lane runs) maps
// "/" to that sysroot, while relative names reach the real tree.
UniqueFd openRoot()
{
    UniqueFd current(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat here {};
    while (current && ::fstat(current.get(), &here) == 0) {
        UniqueFd parent(::openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat above {};
        if (!parent || ::fstat(parent.get(), &above) != 0) {
            return {};
        }
        if (above.st_dev == here.st_dev && above.st_ino == here.st_ino) {
            return current;
        }
        current = std::move(parent);
    }
    return {};
}

// The walk of openEntry(); `wantDirectory`: the whole path names a directory.
bool walk(const std::string& path, bool followLast, bool wantDirectory, DirectoryEntry& entry, std::string& error)
{
    if (path.empty()) {
        error = "empty path";
        return false;
    }
    std::deque<std::string> rest;
    splitInto(path, rest, false);
    UniqueFd current(path[0] == '/' ? openRoot() : UniqueFd(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)));
    struct stat currentStatus {};
    if (!current || ::fstat(current.get(), &currentStatus) != 0) {
        error = "cannot open the start of " + path + ": " + errnoText(errno);
        return false;
    }
    int links = 0;
    bool throughLink = false;
    std::string name = ".";
    while (!rest.empty()) {
        name = rest.front();
        rest.pop_front();
        if (name == ".") {
            continue;
        }
        const bool last = rest.empty() && !wantDirectory;
        struct stat status {};
        const bool exists = ::fstatat(current.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (!exists && (errno != ENOENT || !last)) {
            error = "cannot use " + path + ": " + errnoText(errno);
            return false;
        }
        if (exists && S_ISLNK(status.st_mode) && (!last || followLast)) {
            // A link in the middle is followed only when its owner is root or
            // this user; the last one only when the caller asked for it.
            if (!last && status.st_uid != 0 && status.st_uid != ::geteuid()) {
                error = "refusing to follow the symbolic link " + name + " in " + path + ": it belongs to user " +
                        std::to_string(status.st_uid);
                return false;
            }
            std::string target;
            if (++links > c_mostLinks || !readLink(current.get(), name, target)) {
                error = "cannot follow the symbolic link " + name + " in " + path + ": " +
                        errnoText(links > c_mostLinks ? ELOOP : errno);
                return false;
            }
            if (!target.empty() && target[0] == '/') {
                current = openRoot();
                if (!current || ::fstat(current.get(), &currentStatus) != 0) {
                    error = "cannot open /: " + errnoText(errno);
                    return false;
                }
            }
            splitInto(target, rest, true);
            throughLink = throughLink || last;
            name = ".";
            continue;
        }
        if (last) {
            break;
        }
        UniqueFd next(::openat(current.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat nextStatus {};
        if (!next || ::fstat(next.get(), &nextStatus) != 0) {
            error = "cannot open the directory " + name + " in " + path + ": " +
                    (errno == ELOOP ? std::string("it was replaced by a symbolic link") : errnoText(errno));
            return false;
        }
        if (currentStatus.st_uid != 0 && nextStatus.st_uid != currentStatus.st_uid) {
            error = "refusing the directory " + name + " in " + path + ": it belongs to user " +
                    std::to_string(nextStatus.st_uid) + ", the directory holding it to user " +
                    std::to_string(currentStatus.st_uid);
            return false;
        }
        current = std::move(next);
        currentStatus = nextStatus;
        name = ".";
    }
    if (!wantDirectory && (name == "." || name == "..")) {
        error = path + " is a directory";
        return false;
    }
    // Reopened for reading, so that it can be flushed.
    UniqueFd readable(::openat(current.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    entry.directory = std::make_shared<const UniqueFd>(readable ? std::move(readable) : std::move(current));
    entry.name = wantDirectory ? "." : name;
    entry.shown = path;
    entry.throughLink = throughLink;
    return true;
}

// Copies every extended attribute of `from` to `to`.
bool copyExtendedAttributes(int from, int to, const std::string& shown, std::string& error)
{
    std::vector<char> names;
    ssize_t size = 0;
    for (;;) {
        size = ::flistxattr(from, nullptr, 0);
        if (size < 0) {
            if (errno == ENOTSUP) {
                return true;  // the file system has none
            }
            error = "cannot list the extended attributes of " + shown + ": " + errnoText(errno);
            return false;
        }
        names.resize(static_cast<std::size_t>(size) + 1);
        size = ::flistxattr(from, names.data(), names.size());
        if (size >= 0 || errno != ERANGE) {
            break;
        }
    }
    if (size < 0) {
        error = "cannot list the extended attributes of " + shown + ": " + errnoText(errno);
        return false;
    }
    std::vector<char> value;
    for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
        const std::string name(&names[at]);
        at += name.size() + 1;
        ssize_t length = -1;
        for (;;) {
            length = ::fgetxattr(from, name.c_str(), nullptr, 0);
            if (length < 0) {
                break;
            }
            value.resize(static_cast<std::size_t>(length) + 1);
            length = ::fgetxattr(from, name.c_str(), value.data(), value.size());
            if (length >= 0 || errno != ERANGE) {
                break;
            }
        }
        if (length < 0 || ::fsetxattr(to, name.c_str(), value.data(), static_cast<std::size_t>(length), 0) != 0) {
            error = "cannot keep the extended attribute " + name + " of " + shown + ": " + errnoText(errno);
            return false;
        }
    }
    return true;
}

}  // namespace

bool openEntry(const std::string& path, bool followLast, DirectoryEntry& entry, std::string& error)
{
    return walk(path, followLast, false, entry, error);
}

bool openDirectoryEntry(const std::string& path, DirectoryEntry& entry, std::string& error)
{
    return walk(path, true, true, entry, error);
}

void syncDirectory(int directory)
{
    ::fsync(directory);
}

AtomicFileWriter::~AtomicFileWriter()
{
    if (!m_committed) {
        discard();
    }
}

void AtomicFileWriter::discard()
{
    m_fd.close();
    if (!m_temporary.empty()) {
        ::unlinkat(directoryFd(), m_temporary.c_str(), 0);
        m_temporary.clear();
    }
}

bool AtomicFileWriter::begin(const DirectoryEntry& destination, mode_t mode, std::string& error, bool modeIsOptional)
{
    discard();
    m_committed = false;
    m_destination = destination;
    m_mode = mode;
    m_modeIsOptional = modeIsOptional;
    m_modeSet = false;
    static const char c_letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
        unsigned char random[6];
        if (::getrandom(random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random))) {
            error = "cannot draw a temporary file name: " + errnoText(errno);
            return false;
        }
        std::string name = "." + destination.name + c_temporaryInfix;
        for (unsigned char r : random) {
            name += c_letters[r % (sizeof(c_letters) - 1)];
        }
        const int fd = ::openat(directoryFd(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno == EEXIST) {
            continue;
        }
        if (fd < 0) {
            error = "cannot create a temporary file beside " + destination.shown + ": " + errnoText(errno);
            return false;
        }
        m_fd.reset(fd);
        m_temporary = name;
        m_written = 0;
        m_writebackStarted = 0;
        m_finished = false;
        return true;
    }
    error = "cannot create a temporary file beside " + destination.shown + ": " + errnoText(EEXIST);
    return false;
}

bool AtomicFileWriter::keepAttributesOf(int original, const struct stat& status, std::string& error)
{
    if (!m_fd) {
        error = "no temporary file open for " + m_destination.shown;
        return false;
    }
    struct stat mine {};
    if (::fstat(m_fd.get(), &mine) != 0) {
        error = "cannot read the status of the new " + m_destination.shown + ": " + errnoText(errno);
        discard();
        return false;
    }
    // The owner first: a change of owner clears set-user-ID bits and file
    // capabilities, which come after it.
    if ((mine.st_uid != status.st_uid || mine.st_gid != status.st_gid) &&
        ::fchown(m_fd.get(), status.st_uid, status.st_gid) != 0) {
        error = "cannot keep the owner of " + m_destination.shown + " (user " + std::to_string(status.st_uid) +
                ", group " + std::to_string(status.st_gid) + "): " + errnoText(errno) + "; it is not replaced";
        discard();
        return false;
    }
    if ((mine.st_mode & 07777) != (status.st_mode & 07777) && ::fchmod(m_fd.get(), status.st_mode & 07777) != 0) {
        error = "cannot keep the permission bits of " + m_destination.shown + ": " + errnoText(errno);
        discard();
        return false;
    }
    if (!copyExtendedAttributes(original, m_fd.get(), m_destination.shown, error)) {
        discard();
        return false;
    }
    m_modeSet = true;
    return true;
}

bool AtomicFileWriter::write(const unsigned char* bytes, std::size_t size, std::string& error)
{
    if (!m_fd) {
        error = "no temporary file open for " + m_destination.shown;
        return false;
    }
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(m_fd.get(), bytes + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = "cannot write the new " + m_destination.shown + ": " + errnoText(errno);
            discard();
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    m_written += size;
    if (m_written - m_writebackStarted >= c_writebackStep) {
        // Only a start: the commit's fsync still decides, so a failure here
        // changes nothing.
        ::sync_file_range(m_fd.get(), static_cast<off_t>(m_writebackStarted),
                          static_cast<off_t>(m_written - m_writebackStarted), SYNC_FILE_RANGE_WRITE);
        m_writebackStarted = m_written;
    }
    return true;
}

bool AtomicFileWriter::finishWriting(std::string& error)
{
    if (!m_fd) {
        error = "no temporary file open for " + m_destination.shown;
        return false;
    }
    if (!m_modeSet) {
        // A set-group-ID bit only where the new file's group is this process's.
        struct stat mine {};
        mode_t mode = m_mode;
        if (::fstat(m_fd.get(), &mine) == 0 && mine.st_gid != ::getegid()) {
            mode &= ~static_cast<mode_t>(S_ISGID);
        }
        if (::fchmod(m_fd.get(), mode) != 0 && !m_modeIsOptional) {
            error = "cannot set the permissions of the new " + m_destination.shown + ": " + errnoText(errno);
            discard();
            return false;
        }
        m_modeSet = true;
    }
    if (!m_fd.close()) {
        error = "cannot close the new " + m_destination.shown + ": " + errnoText(errno);
        discard();
        return false;
    }
    m_finished = true;
    return true;
}

bool AtomicFileWriter::commit(bool replace, bool flush, std::string& error)
{
    if (!m_fd && !m_finished) {
        error = "no temporary file open for " + m_destination.shown;
        return false;
    }
    if (flush) {
        // A finished file is opened again for its flush.
        UniqueFd reopened(m_fd ? -1 : ::openat(directoryFd(), m_temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        const int fd = m_fd ? m_fd.get() : reopened.get();
        if (fd < 0 || ::fsync(fd) != 0) {
            error = "cannot flush the new " + m_destination.shown + ": " + errnoText(errno);
            discard();
            return false;
        }
    }
    if (!m_finished && !finishWriting(error)) {
        return false;
    }
    const int dir = directoryFd();
    const char* name = m_destination.name.c_str();
    if (replace) {
        if (::renameat(dir, m_temporary.c_str(), dir, name) != 0) {
            error = "cannot give the new file the name " + m_destination.shown + ": " + errnoText(errno);
            discard();
            return false;
        }
    } else {
        // linkat() refuses an existing name, so a file that appeared since the
        // caller looked is never overwritten. File systems without hard links
        // (FAT on removable storage) get a check and a rename instead.
        if (::linkat(dir, m_temporary.c_str(), dir, name, 0) == 0) {
            ::unlinkat(dir, m_temporary.c_str(), 0);
        } else if (errno == EEXIST || !noHardLinks(errno)) {
            m_existed = errno == EEXIST;
            error = errno == EEXIST ? m_destination.shown + " already exists"
                                    : "cannot create " + m_destination.shown + ": " + errnoText(errno);
            discard();
            return false;
        } else {
            struct stat st {};
            if (::fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
                m_existed = true;
                error = m_destination.shown + " already exists";
                discard();
                return false;
            }
            if (::renameat(dir, m_temporary.c_str(), dir, name) != 0) {
                error = "cannot create " + m_destination.shown + ": " + errnoText(errno);
                discard();
                return false;
            }
        }
    }
    m_temporary.clear();
    m_committed = true;
    if (flush) {
        syncDirectory(dir);
    }
    return true;
}

bool writeFileAtomic(const DirectoryEntry& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error)
{
    AtomicFileWriter writer;
    return writer.begin(destination, mode, error) && writer.write(bytes, error) && writer.commit(replace, error);
}

bool writeFileAtomic(const std::string& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error)
{
    DirectoryEntry entry;
    return openEntry(destination, false, entry, error) && writeFileAtomic(entry, bytes, mode, replace, error);
}

}  // namespace kzol
