// The open file as an object: where the kernel says it lies, whether only
// root could have put it there, and a sealed copy of its bytes. The
// descriptor entry points decide from these alone, never from a name that
// someone else could change in the meantime.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "handles.h"

namespace open_file {

// The kernel's path of `fd` (the link /proc/self/fd/N) in `path`. True when
// that path names the very file now (same device and inode); false when the
// location is in doubt: a deleted file, a memory file, another file at that
// path, no /proc. `path` then holds the best name there is for messages.
bool locate(int fd, const struct stat& file, std::string& path);

// Whether every directory strictly below the area (the first `areaLength`
// characters of `realPath`) down to the file's own directory belongs to root
// and is writable by no one else, and the file `file` is there: then no
// other user can have made that directory or put the file in it. Walked one
// component at a time without following links.
bool placedByRoot(const std::string& realPath, std::size_t areaLength, const struct stat& file);

// A sealed memory file holding the bytes of the regular file `fd` (holes
// stay holes, nothing is read for them) with its permission bits; nothing
// can change it afterwards. Empty with errno set on failure: EFBIG for a file
// larger than `maxBytes`, EINVAL for a file that is not regular. `fd`'s
// offset is left as it was.
UniqueFd sealedCopy(int fd, unsigned long long maxBytes);

}  // namespace open_file
