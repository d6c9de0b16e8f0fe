#include "daemon.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kzol_test {

DaemonListener::DaemonListener() : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_un address{AF_UNIX, {}};
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || listen(m_fd, 4096) != 0) {
        ADD_FAILURE() << "cannot listen on the daemon's name: " << std::strerror(errno);
    }
}

void DaemonListener::stop()
{
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

std::vector<std::string> DaemonListener::drain()
{
    std::vector<std::string> received;
    for (int connection; (connection = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
        std::string bytes;
        char buffer[65536];
        for (ssize_t n; (n = recv(connection, buffer, sizeof(buffer), 0)) > 0;) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        }
        close(connection);
        received.push_back(std::move(bytes));
    }
    return received;
}

std::string frame(const std::string& text)
{
    const auto n = static_cast<std::uint32_t>(text.size());
    return std::string(reinterpret_cast<const char*>(&n), 4) + text + '\0';
}

std::string reportText(int kind, const std::string& caller, const std::string& fileType,
                       const std::string& description, const std::string& path, const char* sequence)
{
    const auto quoted = [](const std::string& text) {
        std::string out = "\"";
        for (const char c : text) {
            out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
        }
        return out + "\"";
    };
    return "{\n\t\"Action/FileSend\" : " + std::to_string(kind) + ",\n\t\"Report/Caller\" : " + quoted(caller) +
           ",\n\t\"Report/Decription\" : " + quoted(description) + ",\n\t\"Report/FileType\" : " + quoted(fileType) +
           ",\n\t\"Report/Path\" : " + quoted(path) + ",\n" +
           (sequence != nullptr ? "\t\"Report/ReportSeq\" : " + quoted(sequence) + ",\n" : std::string()) +
           "\t\"State\" : \"ShowNoti\",\n\t\"TaskName\" : \"UserBlockMsg\"\n}";
}

std::vector<std::string> unsequenced(const std::vector<std::string>& streams)
{
    std::vector<std::string> texts;
    for (const auto& stream : streams) {
        const std::string text = stream.size() >= 5 ? stream.substr(4, stream.size() - 5) : std::string();
        EXPECT_EQ(stream, frame(text)) << "one frame per connection";
        // Without its report sequence, which only the clock decides.
        const std::string key = "\t\"Report/ReportSeq\" : \"";
        const auto at = text.find(key);
        const auto end = at == std::string::npos ? at : text.find("\",\n", at + key.size());
        const bool digits = end != std::string::npos &&
                            text.find_first_not_of("0123456789", at + key.size()) == end;
        texts.push_back(digits ? text.substr(0, at) + text.substr(end + 3) : text);
    }
    return texts;
}

}  // namespace kzol_test
