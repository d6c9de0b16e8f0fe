#include "open_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <vector>

namespace open_file {

namespace {

constexpr unsigned int c_seals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;
#ifdef MFD_EXEC
constexpr unsigned int c_memfdExec = MFD_EXEC;
#else
constexpr unsigned int c_memfdExec = 0x10U;  // executable even where memory files are not by default
#endif
constexpr std::size_t c_copyPiece = 65536;

bool sameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::string linkName(int fd)
{
    return "/proc/self/fd/" + std::to_string(fd);
}

bool copyRange(int from, int to, off_t begin, off_t end, std::vector<char>& buffer)
{
    while (begin < end) {
        const auto want = static_cast<std::size_t>(std::min<off_t>(end - begin, static_cast<off_t>(buffer.size())));
        const ssize_t got = pread(from, buffer.data(), want, begin);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;  // the file shrank: the copy keeps zeros there
        }
        for (ssize_t put = 0; put < got;) {
            const ssize_t n = pwrite(to, buffer.data() + put, static_cast<std::size_t>(got - put), begin + put);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            put += n;
        }
        begin += got;
    }
    return true;
}

// The data of `from` up to `size` into `to`, extent by extent.
bool copyData(int from, int to, off_t size)
{
    std::vector<char> buffer(c_copyPiece);
    off_t position = 0;
    while (position < size) {
        off_t data = lseek(from, position, SEEK_DATA);
        off_t hole = size;
        if (data < 0 && errno == ENXIO) {
            return true;  // only a hole is left
        }
        if (data < 0) {
            data = position;  // no extents to ask for: all of it is data
        } else {
            hole = lseek(from, data, SEEK_HOLE);
            hole = hole < 0 ? size : std::min(hole, size);
        }
        if (data >= size) {
            return true;
        }
        if (!copyRange(from, to, data, hole, buffer)) {
            return false;
        }
        position = hole;
    }
    return true;
}

}  // namespace

bool locate(int fd, const struct stat& file, std::string& path)
{
    const std::string link = linkName(fd);
    char target[PATH_MAX + 1];
    const ssize_t length = readlink(link.c_str(), target, PATH_MAX);
    if (length <= 0) {
        path = link;
        return false;
    }
    path.assign(target, static_cast<std::size_t>(length));
    struct stat named {};
    return path[0] == '/' && stat(path.c_str(), &named) == 0 && sameFile(named, file);
}

bool placedByRoot(const std::string& realPath, std::size_t areaLength, const struct stat& file)
{
    UniqueFd directory(open(realPath.substr(0, areaLength).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::size_t position = areaLength;
    while (directory && position < realPath.size() && realPath[position] == '/') {
        const std::size_t next = realPath.find('/', position + 1);
        const std::string name = realPath.substr(position + 1, next == std::string::npos ? next : next - position - 1);
        struct stat status {};
        if (next == std::string::npos) {
            return fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && sameFile(status, file);
        }
        UniqueFd child(openat(directory.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!child || fstat(child.get(), &status) != 0 || status.st_uid != 0 ||
            (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            return false;
        }
        directory = std::move(child);
        position = next;
    }
    return false;
}

UniqueFd sealedCopy(int fd, unsigned long long maxBytes)
{
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return {};
    }
    if (static_cast<unsigned long long>(status.st_size) > maxBytes) {
        errno = EFBIG;
        return {};
    }
    UniqueFd copy(memfd_create("kzol-run", MFD_CLOEXEC | MFD_ALLOW_SEALING | c_memfdExec));
    if (!copy && errno == EINVAL) {
        copy.reset(memfd_create("kzol-run", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    }
    if (!copy || ftruncate(copy.get(), status.st_size) != 0) {
        return {};
    }
    // Asking for extents moves the offset that `fd` shares with its owner.
    const off_t offset = lseek(fd, 0, SEEK_CUR);
    const bool copied = copyData(fd, copy.get(), status.st_size);
    const int error = errno;
    if (offset >= 0) {
        (void)lseek(fd, offset, SEEK_SET);
    }
    errno = error;
    if (!copied || fchmod(copy.get(), status.st_mode & 0777) != 0 || fcntl(copy.get(), F_ADD_SEALS, c_seals) != 0) {
        return {};
    }
    return copy;
}

}  // namespace open_file
