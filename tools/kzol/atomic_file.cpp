#include "atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

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

std::string baseNameOf(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// link() errors that say the file system has no hard links.
bool noHardLinks(int err)
{
    return err == EPERM || err == EOPNOTSUPP || err == ENOSYS || err == EMLINK;
}

// Written bytes beyond which the disk is asked to start taking them: a large
// file goes to disk while it is written, and the flush at the commit finds
// little left to do.
constexpr std::uint64_t c_writebackStep = 8 << 20;

}  // namespace

void syncDirectory(const std::string& directory)
{
    UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) {
        ::fsync(fd.get());
    }
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
        ::unlink(m_temporary.c_str());
        m_temporary.clear();
    }
}

bool AtomicFileWriter::begin(const std::string& destination, mode_t mode, std::string& error, bool modeIsOptional)
{
    discard();
    m_committed = false;
    m_destination = destination;
    std::string pattern = directoryOf(destination) + "/." + baseNameOf(destination) + ".kzol-XXXXXX";
    const int fd = ::mkostemp(&pattern[0], O_CLOEXEC);
    if (fd < 0) {
        error = "cannot create a temporary file in " + directoryOf(destination) + ": " + errnoText(errno);
        return false;
    }
    m_fd.reset(fd);
    m_temporary = pattern;
    m_written = 0;
    m_writebackStarted = 0;
    m_finished = false;
    if (::fchmod(fd, mode) != 0 && !modeIsOptional) {
        error = "cannot set the permissions of " + m_temporary + ": " + errnoText(errno);
        discard();
        return false;
    }
    return true;
}

bool AtomicFileWriter::write(const unsigned char* bytes, std::size_t size, std::string& error)
{
    if (!m_fd) {
        error = "no temporary file open for " + m_destination;
        return false;
    }
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(m_fd.get(), bytes + done, size - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = "cannot write " + m_temporary + ": " + errnoText(errno);
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
        error = "no temporary file open for " + m_destination;
        return false;
    }
    if (!m_fd.close()) {
        error = "cannot close " + m_temporary + ": " + errnoText(errno);
        discard();
        return false;
    }
    m_finished = true;
    return true;
}

bool AtomicFileWriter::commit(bool replace, bool flush, std::string& error)
{
    if (!m_fd && !m_finished) {
        error = "no temporary file open for " + m_destination;
        return false;
    }
    if (flush) {
        // A finished file is opened again for its flush.
        UniqueFd reopened(m_fd ? -1 : ::open(m_temporary.c_str(), O_RDONLY | O_CLOEXEC));
        const int fd = m_fd ? m_fd.get() : reopened.get();
        if (fd < 0 || ::fsync(fd) != 0) {
            error = "cannot flush " + m_temporary + ": " + errnoText(errno);
            discard();
            return false;
        }
    }
    if (!m_finished && !finishWriting(error)) {
        return false;
    }
    if (replace) {
        if (::rename(m_temporary.c_str(), m_destination.c_str()) != 0) {
            error = "cannot rename " + m_temporary + " to " + m_destination + ": " + errnoText(errno);
            discard();
            return false;
        }
    } else {
        // link() refuses an existing name, so a file that appeared since the
        // caller looked is never overwritten. File systems without hard links
        // (FAT on removable storage) get a check and a rename instead.
        if (::link(m_temporary.c_str(), m_destination.c_str()) == 0) {
            ::unlink(m_temporary.c_str());
        } else if (errno == EEXIST || !noHardLinks(errno)) {
            m_existed = errno == EEXIST;
            error = errno == EEXIST ? m_destination + " already exists"
                                    : "cannot create " + m_destination + ": " + errnoText(errno);
            discard();
            return false;
        } else {
            struct stat st {};
            if (::lstat(m_destination.c_str(), &st) == 0) {
                m_existed = true;
                error = m_destination + " already exists";
                discard();
                return false;
            }
            if (::rename(m_temporary.c_str(), m_destination.c_str()) != 0) {
                error = "cannot create " + m_destination + ": " + errnoText(errno);
                discard();
                return false;
            }
        }
    }
    m_temporary.clear();
    m_committed = true;
    if (flush) {
        syncDirectory(directoryOf(m_destination));
    }
    return true;
}

bool writeFileAtomic(const std::string& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error)
{
    AtomicFileWriter writer;
    return writer.begin(destination, mode, error) && writer.write(bytes, error) && writer.commit(replace, error);
}

}  // namespace kzol
