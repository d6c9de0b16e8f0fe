#include "daemon.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>

namespace kzol_test {

DaemonListener::DaemonListener(bool closeAtOnce) : m_closeAtOnce(closeAtOnce)
{
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(m_fd, 256) != 0) {
        ADD_FAILURE() << "cannot listen on the daemon's name: " << std::strerror(errno);
    }
    m_thread = std::thread([this] { serve(); });
}

DaemonListener::~DaemonListener()
{
    stop();
}

void DaemonListener::stop()
{
    m_stop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

std::vector<std::string> DaemonListener::streams(std::size_t count)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_streams.size() >= count; });
    return m_streams;
}

namespace {
const std::string c_marker = "kzol-test-drain-marker";
}

std::vector<std::string> DaemonListener::drain()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        send(fd, c_marker.data(), c_marker.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(c_marker.size())) {
        ADD_FAILURE() << "cannot reach the test daemon: " << std::strerror(errno);
    }
    close(fd);
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool seen = m_changed.wait_for(lock, std::chrono::seconds(20), [&] {
        return std::find(m_streams.begin() + static_cast<std::ptrdiff_t>(m_drained), m_streams.end(), c_marker) !=
               m_streams.end();
    });
    EXPECT_TRUE(seen) << "the test daemon did not serve its marker";
    std::vector<std::string> received;
    for (std::size_t i = m_drained; i < m_streams.size(); ++i) {
        if (m_streams[i] == c_marker) {
            m_drained = i + 1;
            break;
        }
        received.push_back(m_streams[i]);
    }
    return received;
}

bool DaemonListener::waitClosed(int count)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_closed >= count; });
}

void DaemonListener::serve()
{
    while (!m_stop) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0) {
            continue;
        }
        const int connection = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            continue;
        }
        if (m_closeAtOnce) {
            close(connection);
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_closed;
            m_changed.notify_all();
            continue;
        }
        std::string bytes;
        char buffer[65536];
        ssize_t n;
        while ((n = recv(connection, buffer, sizeof(buffer), 0)) > 0) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        }
        close(connection);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_streams.push_back(std::move(bytes));
        m_changed.notify_all();
    }
}

std::string frame(const std::string& text)
{
    const auto n = static_cast<std::uint32_t>(text.size());
    std::string bytes(reinterpret_cast<const char*>(&n), 4);
    return bytes + text + std::string(1, '\0');
}

std::string onlyFrameText(const std::string& stream)
{
    EXPECT_GE(stream.size(), 5u);
    if (stream.size() < 5) {
        return {};
    }
    std::uint32_t n = 0;
    std::memcpy(&n, stream.data(), 4);
    EXPECT_EQ(stream.size(), n + 5u) << "one frame per connection";
    EXPECT_EQ(stream.back(), '\0');
    return stream.substr(4, n);
}

}  // namespace kzol_test
