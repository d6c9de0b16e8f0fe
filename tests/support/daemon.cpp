#include "daemon.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kzol_test {

timespec g_reportTime = {20000 * 86400L + 3723, 4999};

UniqueFd abstractSocket(const std::string& name, bool listening)
{
    sockaddr_un address{AF_UNIX, {}};
    std::memcpy(address.sun_path + 1, name.data(), std::min(name.size(), sizeof(address.sun_path) - 1));
    UniqueFd s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (listening ? SOCK_NONBLOCK : 0), 0));
    const auto* a = reinterpret_cast<const sockaddr*>(&address);
    const bool ok = listening ? bind(s.get(), a, sizeof(address)) == 0 && listen(s.get(), 4096) == 0
                              : connect(s.get(), a, sizeof(address)) == 0;
    return ok ? std::move(s) : UniqueFd();
}

DaemonListener::DaemonListener() : m_socket(abstractSocket("SfDaemon/UserMsg", true))
{
    EXPECT_GE(m_socket.get(), 0) << "cannot listen on the daemon's name: " << std::strerror(errno);
}

Lines DaemonListener::drain()
{
    Lines received;
    for (UniqueFd connection; connection.reset(accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC)), connection;) {
        std::string bytes;
        char buffer[65536];
        for (ssize_t n; (n = recv(connection.get(), buffer, sizeof(buffer), 0)) > 0;) {
            bytes.append(buffer, static_cast<std::size_t>(n));
        }
        received.push_back(std::move(bytes));
    }
    return received;
}

std::string prefix(std::uint32_t length)
{
    return std::string(reinterpret_cast<const char*>(&length), 4);
}

std::string frame(const std::string& text)
{
    return prefix(static_cast<std::uint32_t>(text.size())) + text + '\0';
}

std::string reportText(int kind, const std::string& caller, const std::string& fileType, const std::string& description,
                       const std::string& path, const std::string& sequence)
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
           ",\n\t\"Report/Path\" : " + quoted(path) + ",\n\t\"Report/ReportSeq\" : " + quoted(sequence) +
           ",\n\t\"State\" : \"ShowNoti\",\n\t\"TaskName\" : \"UserBlockMsg\"\n}";
}

std::string refusalFrame(const std::string& path, const std::string& result, const std::string& caller)
{
    const std::string description =
        "ver:\"1\",subject:\"" + path + "\",object:\"" + caller + "\",result:\"" + result + "\",";
    return frame(reportText(1, caller, "SCRIPT", description, path));
}

}  // namespace kzol_test

// The library reads the time of day for its report sequence only. Where
// time_t has 64 bits on a 32-bit target, the C library's clock_gettime of that
// width is __clock_gettime64, and the declaration names this one so too.
extern "C" int clock_gettime(clockid_t clock, timespec* time)
{
    static const char* const name = sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime";
    static const auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, name));
    return clock != CLOCK_REALTIME ? real(clock, time) : (*time = kzol_test::g_reportTime, 0);
}
