// Atomic replacement of a file: the new contents go to a temporary file in the
// destination's directory, are flushed to disk, and only then take the
// destination's name. Readers see the old file or the new one, never a part.
#pragma once

#include <sys/types.h>

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
    bool write(const ByteBuffer& bytes, std::string& error);
    // Where the contents are until commit(), for a check before committing.
    const std::string& temporaryPath() const { return m_temporary; }
    // Flushes the contents to disk and gives them the destination's name. With
    // `replace` an existing destination is replaced; without it an existing
    // destination makes the commit fail and stays as it was. The directory is
    // flushed as well.
    bool commit(bool replace, std::string& error);
    // After a failed commit without `replace`: the destination had appeared.
    bool destinationExisted() const { return m_existed; }

private:
    void discard();

    std::string m_destination;
    std::string m_temporary;
    UniqueFd m_fd;
    bool m_committed = false;
    bool m_existed = false;
};

// begin, write and commit in one call.
bool writeFileAtomic(const std::string& destination, const ByteBuffer& bytes, mode_t mode, bool replace,
                     std::string& error);

// The directory part of a path ("." when it has none).
std::string directoryOf(const std::string& path);

// Creates `path` and the directories above it that are missing, new ones with
// permission bits `mode` (less the umask). An existing path that is not a
// directory is an error.
bool makeDirectories(const std::string& path, mode_t mode, std::string& error);

}  // namespace kzol
