// kzol enforce: the bounded cache of allowed file states.
#include "enforce_cache.h"

#include <functional>

namespace kzol {

namespace {

bool sameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

void mix(std::size_t& seed, unsigned long long value)
{
    seed ^= std::hash<unsigned long long>{}(value) + 0x9e3779b97f4a7c15ULL + (seed << 6U) + (seed >> 2U);
}

}  // namespace

FileState FileState::of(const struct stat& status)
{
    return FileState{status.st_dev, status.st_ino, status.st_size, status.st_ctim, status.st_mtim};
}

bool FileState::operator==(const FileState& other) const
{
    return device == other.device && inode == other.inode && size == other.size && sameTime(changed, other.changed) &&
           sameTime(modified, other.modified);
}

std::size_t FileStateHash::operator()(const FileState& state) const
{
    std::size_t seed = 0;
    mix(seed, state.device);
    mix(seed, state.inode);
    mix(seed, static_cast<unsigned long long>(state.size));
    mix(seed, static_cast<unsigned long long>(state.changed.tv_sec));
    mix(seed, static_cast<unsigned long long>(state.changed.tv_nsec));
    mix(seed, static_cast<unsigned long long>(state.modified.tv_nsec));
    return seed;
}

bool VerdictCache::allowed(const FileState& state)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_index.find(state);
    if (found == m_index.end()) {
        return false;
    }
    m_order.splice(m_order.begin(), m_order, found->second);
    return true;
}

void VerdictCache::rememberAllowed(const FileState& state)
{
    if (m_capacity == 0) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_index.find(state);
    if (found != m_index.end()) {
        m_order.splice(m_order.begin(), m_order, found->second);
        return;
    }
    if (m_order.size() >= m_capacity) {
        m_index.erase(m_order.back());
        m_order.pop_back();
    }
    m_order.push_front(state);
    m_index.emplace(state, m_order.begin());
}

std::size_t VerdictCache::size() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_order.size();
}

}  // namespace kzol
