#include "daemon.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <regex>

namespace kzol_test {

namespace {

const std::string c_marker = "kzol-test-drain-marker";

sockaddr_un daemonAddress()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    return address;
}

std::string quoted(const std::string& text)
{
    return "\"" + std::regex_replace(text, std::regex(R"((["\\]))"), "\\$1") + "\"";
}

}  // namespace

DaemonListener::DaemonListener(bool closeAtOnce) : m_closeAtOnce(closeAtOnce)
{
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = daemonAddress();
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || listen(m_fd, 256) != 0) {
        ADD_FAILURE() << "cannot listen on the daemon's name: " << std::strerror(errno);
    }
    m_thread = std::thread([this] { serve(); });
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

std::vector<std::string> DaemonListener::drain()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = daemonAddress();
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        send(fd, c_marker.data(), c_marker.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(c_marker.size())) {
        ADD_FAILURE() << "cannot reach the test daemon: " << std::strerror(errno);
    }
    close(fd);
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto marker = [&] {
        return std::find(m_streams.begin() + static_cast<std::ptrdiff_t>(m_drained), m_streams.end(), c_marker);
    };
    EXPECT_TRUE(m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return marker() != m_streams.end(); }))
        << "the test daemon did not serve its marker";
    const auto end = marker();
    std::vector<std::string> received(m_streams.begin() + static_cast<std::ptrdiff_t>(m_drained), end);
    m_drained = std::min(m_streams.size(), static_cast<std::size_t>(end - m_streams.begin()) + 1);
    return received;
}

void DaemonListener::serve()
{
    for (pollfd p{m_fd, POLLIN, 0}; poll(&p, 1, 20) > 0 || !m_stop;) {
        const int connection = p.revents != 0 ? accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (connection < 0) {
            continue;
        }
        std::string bytes;
        char buffer[65536];
        for (ssize_t n; !m_closeAtOnce && (n = recv(connection, buffer, sizeof(buffer), 0)) > 0;) {
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
    return std::string(reinterpret_cast<const char*>(&n), 4) + text + std::string(1, '\0');
}

std::string reportText(int kind, const std::string& caller, const std::string& fileType,
                       const std::string& description, const std::string& path, const char* sequence)
{
    return "{\n\t\"Action/FileSend\" : " + std::to_string(kind) + ",\n\t\"Report/Caller\" : " + quoted(caller) +
           ",\n\t\"Report/Decription\" : " + quoted(description) + ",\n\t\"Report/FileType\" : " + quoted(fileType) +
           ",\n\t\"Report/Path\" : " + quoted(path) + ",\n" +
           (sequence != nullptr ? "\t\"Report/ReportSeq\" : " + quoted(sequence) + ",\n" : std::string()) +
           "\t\"State\" : \"ShowNoti\",\n\t\"TaskName\" : \"UserBlockMsg\"\n}";
}

std::string unsequenced(const std::string& stream)
{
    std::string text = stream.size() >= 5 ? stream.substr(4, stream.size() - 5) : std::string();
    EXPECT_EQ(stream, frame(text)) << "one frame per connection";
    const auto at = text.find("\t\"Report/ReportSeq\" : \"");
    return at == std::string::npos ? text : text.erase(at, text.find('\n', at) + 1 - at);
}

}  // namespace kzol_test
