// Atomic replacement of a file: the new contents go to a temporary file in the
// destination's directory, are flushed to disk, and only then take the
// destination's name. Readers see the old file or the new one, never a part.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "common.h"

namespace kzol {

class AtomicFileWriter {
public:
    AtomicFileWriter() = default;
    // Removes the temporary file unless commit() succeeded.
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // Creates the temporary file next to `destination` with permission bits
    // exactly `mode` (the process umask does not apply). With `modeIsOptional`
    // a file system that has no permission bits (FAT on removable storage)
    // is not an error.
    bool begin(const std::string& destination, mode_t mode, std::string& error, bool modeIsOptional = false);
    bool write(const unsigned char* bytes, std::size_t size, std::string& error);
    bool write(const ByteBuffer& bytes, std::string& error) { return write(bytes.data(), bytes.size(), error); }
    // Ends the writing: the temporary file is closed (and counted on no
    // longer), and commit() follows later; false, with the file removed, when
    // the close fails.
    bool finishWriting(std::string& error);
    // Where the contents are until commit(), for a check before committing.
    const std::string& temporaryPath() const { return m_temporary; }
    // Flushes the contents to disk and gives them the destination's name. With
    // `replace` an existing destination is replaced; without it an existing
    // destination makes the commit fail and stays as it was. The directory is
    // flushed as well.
    bool commit(bool replace, std::string& error) { return commit(replace, true, error); }
    // As commit(), for a caller that has flushed the file system holding the
    // temporary file (syncfs) and flushes the destination's directory itself
    // (syncDirectory): many files then take one flush, not two each.
    bool commitFlushed(bool replace, std::string& error) { return commit(replace, false, error); }
    const std::string& destination() const { return m_destination; }
    // After a failed commit without `replace`: the destination had appeared.
    bool destinationExisted() const { return m_existed; }

private:
    bool commit(bool replace, bool flush, std::string& error);
    void discard();

    std::string m_destination;
    std::string m_temporary;
    UniqueFd m_fd;
    bool m_committed = false;
    bool m_existed = false;
    bool m_finished = false;  // written and closed
    // Bytes written, and how many of them the disk has been asked to take.
    std::uint64_t m_written = 0;
    std::uint64_t m_writebackStarted = 0;
};

// begin, write and commit in one call.
bool writeFileAtomic(const std::string& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error);

// Makes a rename or link in `directory` durable, as far as the file system
// allows. It comes after the new name is in place, so a failure is not
// reported: the destination already holds the complete new contents.
void syncDirectory(const std::string& directory);

// The directory part of a path ("." when it has none).
std::string directoryOf(const std::string& path);

// Creates `path` and the directories above it that are missing, new ones with
// permission bits `mode` (less the umask). An existing path that is not a
// directory is an error.
bool makeDirectories(const std::string& path, mode_t mode, std::string& error);

}  // namespace kzol
