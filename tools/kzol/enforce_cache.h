// kzol enforce: the verdicts worth remembering. A file that the signature
// step allowed may run again as long as it is the same file in the same state:
// same device and inode, same size, change and modification times. Any write,
// truncation, chmod or rename of the file moves its change time, so a file
// changed after an allowed run misses and is decided again.
//
// Only those allows are kept: a signature verdict depends on the file's bytes
// and the keys built into the library, on nothing else of the device. Denials
// (a disable certificate may come), and allows of the steps before the
// signature (the area of the path, the device, the executing process's user
// IDs and container) depend on more than the file, and are decided every time.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <list>
#include <mutex>
#include <unordered_map>

namespace kzol {

struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};
    timespec modified{};

    static FileState of(const struct stat& status);
    bool operator==(const FileState& other) const;
};

struct FileStateHash {
    std::size_t operator()(const FileState& state) const;
};

// A bounded set of allowed file states, the least recently used dropped
// first. Safe to use from any thread.
class VerdictCache {
public:
    explicit VerdictCache(std::size_t capacity) : m_capacity(capacity) {}
    // True when `state` was allowed before; it becomes the most recent.
    bool allowed(const FileState& state);
    void rememberAllowed(const FileState& state);
    std::size_t size() const;

private:
    using Order = std::list<FileState>;
    const std::size_t m_capacity;
    mutable std::mutex m_mutex;
    Order m_order;  // most recent first
    std::unordered_map<FileState, Order::iterator, FileStateHash> m_index;
};

}  // namespace kzol
