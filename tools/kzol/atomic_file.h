// Atomic replacement of a file, through directory descriptors: the directory
// that holds the destination is reached one component at a time without
// following links that others could have placed, the new contents go to a
// temporary file made in that directory, are flushed to disk, and only then
// take the destination's name in the same directory (renameat). Readers see
// the old file or the new one, never a part; nothing is written outside the
// directory the walk opened, whatever is renamed or linked meanwhile.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common.h"

namespace kzol {

// An open directory, shared by the files written in it.
using DirectoryFd = std::shared_ptr<const UniqueFd>;

// A name in an open directory; `shown` is the path the user gave, for messages.
struct DirectoryEntry {
    DirectoryFd directory;
    std::string name;
    std::string shown;
    bool throughLink = false;  // a symbolic link as the last component was followed
};

// Opens the directory that holds the last component of `path` and answers it
// with that component's name. Every directory on the way is opened with
// O_NOFOLLOW; a symbolic link among them is followed only when it belongs to
// root or to this process's user (others cannot have put it there), by
// walking its target the same way. A step from a directory owned by a user
// other than root into one owned by another user is refused. With
// `followLast` a symbolic link as the last component is followed too (its
// target walked the same way); without it the link is the entry answered.
bool openEntry(const std::string& path, bool followLast, DirectoryEntry& entry, std::string& error);
// The same for a directory itself: `entry.directory` is it, `entry.name` ".".
bool openDirectoryEntry(const std::string& path, DirectoryEntry& entry, std::string& error);

class AtomicFileWriter {
public:
    AtomicFileWriter() = default;
    // Removes the temporary file unless commit() succeeded.
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // Creates the temporary file beside `destination`, in its directory, with
    // permission bits 0600 while it is written; finishWriting() gives it
    // exactly `mode` (the process umask does not apply) unless
    // keepAttributesOf() gave it another file's. With `modeIsOptional` a
    // file system that has no permission bits (FAT on removable storage) is
    // not an error.
    bool begin(const DirectoryEntry& destination, mode_t mode, std::string& error, bool modeIsOptional = false);
    bool write(const unsigned char* bytes, std::size_t size, std::string& error);
    bool write(const ByteBuffer& bytes, std::string& error) { return write(bytes.data(), bytes.size(), error); }
    // The temporary file, open for reading back what was written.
    int descriptor() const { return m_fd.get(); }
    // Gives the temporary file what `original` (the open file it replaces,
    // with its status) has: owner and group, permission bits (set-user-ID and
    // set-group-ID included, now that the owner is the same), extended
    // attributes (security labels and access lists included). False, with
    // the file removed, when any of them cannot be kept.
    bool keepAttributesOf(int original, const struct stat& status, std::string& error);
    // Ends the writing: the permission bits are set, the temporary file is
    // closed (and counted on no longer), and commit() follows later; false,
    // with the file removed, when that fails.
    bool finishWriting(std::string& error);
    // Flushes the contents to disk and gives them the destination's name. With
    // `replace` an existing destination is replaced; without it an existing
    // destination makes the commit fail and stays as it was. The directory is
    // flushed as well.
    bool commit(bool replace, std::string& error) { return commit(replace, true, error); }
    // As commit(), for a caller that has flushed the file system holding the
    // temporary file (syncfs) and flushes the destination's directory itself:
    // many files then take one flush, not two each.
    bool commitFlushed(bool replace, std::string& error) { return commit(replace, false, error); }
    const std::string& destination() const { return m_destination.shown; }
    const DirectoryFd& directory() const { return m_destination.directory; }
    // After a failed commit without `replace`: the destination had appeared.
    bool destinationExisted() const { return m_existed; }

private:
    bool commit(bool replace, bool flush, std::string& error);
    void discard();
    int directoryFd() const { return m_destination.directory->get(); }

    DirectoryEntry m_destination;
    std::string m_temporary;  // its name in the directory
    UniqueFd m_fd;
    mode_t m_mode = 0600;
    bool m_modeIsOptional = false;
    bool m_modeSet = false;
    bool m_committed = false;
    bool m_existed = false;
    bool m_finished = false;  // written and closed
    // Bytes written, and how many of them the disk has been asked to take.
    std::uint64_t m_written = 0;
    std::uint64_t m_writebackStarted = 0;
};

// The prefix and infix of temporary file names: ".NAME.kzol-XXXXXX".
constexpr const char* c_temporaryInfix = ".kzol-";

// begin, write and commit in one call.
bool writeFileAtomic(const DirectoryEntry& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error);
bool writeFileAtomic(const std::string& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error);

// Makes a rename or link in the open directory durable, as far as the file
// system allows. It comes after the new name is in place, so a failure is not
// reported: the destination already holds the complete new contents.
void syncDirectory(int directory);

// The directory part of a path ("." when it has none).
std::string directoryOf(const std::string& path);

// Creates `path` and the directories above it that are missing, new ones with
// permission bits `mode` (less the umask). An existing path that is not a
// directory is an error.
bool makeDirectories(const std::string& path, mode_t mode, std::string& error);

}  // namespace kzol
