#include "UnixSocket.h"

#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

const int UnixSocket::s_badDescriptor;

namespace {

// The address length handed to bind, connect and accept: always the whole
// structure, so the abstract name is the complete 107-byte field after the
// leading zero byte, trailing zero bytes included.
constexpr socklen_t c_addressLength = sizeof(struct sockaddr_un);
// The longest name kept: the path field less its leading zero byte.
constexpr std::size_t c_maxNameLength = sizeof(sockaddr_un::sun_path) - 1;
// Frame lengths from here on cannot be buffered on the target (32-bit
// address space); such a prefix ends the connection.
constexpr std::uint32_t c_maxFrameLength = 0x7FFFFFFEU;

static_assert(sizeof(struct sockaddr_un) == 110, "the channel's addresses are 110 bytes long");
static_assert(c_maxNameLength == 107, "names are cut at 107 bytes");

using FrameBuffer = MallocPtr<unsigned char>;

// Waits until `descriptor` is ready for reading (or writing) for at most
// `timeoutMs` milliseconds: 0 when ready, -1 on timeout or failure, without
// retrying after an interruption. A negative descriptor sleeps one second
// and reports not ready. Descriptors at or above FD_SETSIZE do not fit in a
// select set and are waited for with ppoll, under the same rules.
int SfDescriptorReadyForOperation(int descriptor, unsigned int timeoutMs, bool forReading)
{
    if (descriptor < 0) {
        sleep(1);  // NOLINT(concurrency-mt-unsafe): only SIGCHLD handling races with sleep; the library installs none
        return -1;
    }

    const auto seconds = static_cast<time_t>(timeoutMs / 1000);
    const unsigned int restMs = timeoutMs % 1000;

    if (descriptor >= FD_SETSIZE) {
        struct pollfd entry = {};
        entry.fd = descriptor;
        entry.events = forReading ? POLLIN : POLLOUT;
        struct timespec timeout = {};
        timeout.tv_sec = seconds;
        timeout.tv_nsec = static_cast<long>(restMs) * 1000000L;
        if (ppoll(&entry, 1, &timeout, nullptr) <= 0) {
            return -1;
        }
        // The conditions under which select marks the descriptor.
        const short readyMask = forReading ? (POLLIN | POLLHUP | POLLERR) : (POLLOUT | POLLERR);
        return (entry.revents & readyMask) != 0 ? 0 : -1;
    }

    fd_set set;
    FD_ZERO(&set);
    FD_SET(descriptor, &set);
    struct timeval timeout = {};
    timeout.tv_sec = seconds;
    timeout.tv_usec = static_cast<suseconds_t>(restMs) * 1000;
    const int result = forReading ? select(descriptor + 1, &set, nullptr, nullptr, &timeout)
                                  : select(descriptor + 1, nullptr, &set, nullptr, &timeout);
    return result > 0 ? 0 : -1;
}

}  // namespace

UnixSocket::UnixSocket() : m_address()
{
}

UnixSocket::~UnixSocket()
{
    Disconnect();
}

void UnixSocket::SetupSocket(char const* name)
{
    std::memset(&m_address, 0, sizeof(m_address));
    m_address.sun_family = AF_UNIX;
    if (name != nullptr) {
        // sun_path[0] stays 0: the abstract namespace.
        std::memcpy(m_address.sun_path + 1, name, strnlen(name, c_maxNameLength));
    }
}

int UnixSocket::CreateSocketDescriptor()
{
    // A descriptor held before is overwritten, not closed, as in accept.
    (void)m_descriptor.release();
    m_descriptor.reset(socket(AF_UNIX, SOCK_STREAM, 0));
    if (!m_descriptor) {
        log("socket() error ;");
        m_descriptor.reset(s_badDescriptor);
        return -1;
    }
    return 0;
}

int UnixSocket::ConnectToHost(char const* name)
{
    SetupSocket(name);
    if (CreateSocketDescriptor() != 0) {
        return -1;
    }
    if (connect(m_descriptor.get(), reinterpret_cast<const struct sockaddr*>(&m_address), c_addressLength) != 0) {
        KZOL_LOGE("connect() error ;");
        return -1;
    }
    return 0;
}

int UnixSocket::ConnectToHost(char const* name, unsigned int timeoutMs)
{
    SetupSocket(name);
    if (CreateSocketDescriptor() != 0) {
        return -1;
    }
    // For a Unix stream socket the send timeout bounds the wait for room in
    // the listener's queue as well as every send.
    struct timeval timeout = {};
    timeout.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    timeout.tv_usec = static_cast<suseconds_t>((timeoutMs % 1000) * 1000);
    if (setsockopt(m_descriptor.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) != 0 ||
        connect(m_descriptor.get(), reinterpret_cast<const struct sockaddr*>(&m_address), c_addressLength) != 0) {
        KZOL_LOGE("connect() error ;");
        return -1;
    }
    return 0;
}

int UnixSocket::PeerUserId(uid_t& uid) const
{
    struct ucred credentials = {};
    socklen_t length = sizeof(credentials);
    if (getsockopt(m_descriptor.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return -1;
    }
    uid = credentials.uid;
    return 0;
}

int UnixSocket::SetupHost(char const* name, unsigned int backlog)
{
    SetupSocket(name);
    if (CreateSocketDescriptor() != 0) {
        return -1;
    }
    if (Bind() != 0) {
        return -1;
    }
    return Listen(backlog);
}

int UnixSocket::Bind()
{
    if (bind(m_descriptor.get(), reinterpret_cast<const struct sockaddr*>(&m_address), c_addressLength) != 0) {
        KZOL_LOGE("bind() error ;");
        return -1;
    }
    return 0;
}

int UnixSocket::Listen(unsigned int backlog)
{
    if (listen(m_descriptor.get(), static_cast<int>(backlog)) != 0) {
        KZOL_LOGE("listen() error ;");
        return -1;
    }
    return 0;
}

int UnixSocket::AcceptConnection(UnixSocket& client)
{
    socklen_t length = c_addressLength;
    // The client is expected to hold no descriptor; one it holds is
    // overwritten, not closed.
    (void)client.m_descriptor.release();
    client.m_descriptor.reset(
        accept(m_descriptor.get(), reinterpret_cast<struct sockaddr*>(&client.m_address), &length));
    if (!client.m_descriptor) {
        client.m_descriptor.reset(s_badDescriptor);
        KZOL_LOGE("accept() error; ");
        return -1;
    }
    return 0;
}

int UnixSocket::AcceptConnection(UnixSocket& client, unsigned int timeoutMs, bool silent)
{
    if (IsReadyForReading(timeoutMs)) {
        return AcceptConnection(client);
    }
    if (!silent) {
        KZOL_LOGE("timed out after %d msec;", static_cast<int>(timeoutMs));
    }
    return -1;
}

int UnixSocket::SetNonBlocking()
{
    if (fcntl(m_descriptor.get(), F_SETFL, O_NONBLOCK) != 0) {
        KZOL_LOGE("fcntl() error ;");
        return -1;
    }
    return 0;
}

bool UnixSocket::IsConnected() const
{
    return m_descriptor.get() != s_badDescriptor;
}

bool UnixSocket::IsReadyForReading(unsigned int timeoutMs) const
{
    return SfDescriptorReadyForOperation(m_descriptor.get(), timeoutMs, true) == 0;
}

bool UnixSocket::IsReadyForWriting(unsigned int timeoutMs) const
{
    return SfDescriptorReadyForOperation(m_descriptor.get(), timeoutMs, false) == 0;
}

int UnixSocket::Disconnect()
{
    if (!m_descriptor) {
        return 0;
    }
    return m_descriptor.close() ? 0 : -1;
}

bool UnixSocket::SendData(unsigned char const* buffer, unsigned int length)
{
    std::size_t position = 0;
    std::size_t remaining = length;
    while (remaining > 0) {
        const ssize_t sent = send(m_descriptor.get(), buffer + position, remaining, MSG_NOSIGNAL);
        if (sent < 0) {
            log("send() error ;");
            Disconnect();
            return false;
        }
        position += static_cast<std::size_t>(sent);
        remaining -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool UnixSocket::ReceiveData(unsigned char* buffer, unsigned int length)
{
    std::size_t position = 0;
    std::size_t remaining = length;
    while (remaining > 0) {
        const ssize_t received = recv(m_descriptor.get(), buffer + position, remaining, 0);
        if (received <= 0) {
            if (received == 0) {
                log("peer is shutdown;");
            } else {
                log("recv() error ;");
            }
            Disconnect();
            return false;
        }
        position += static_cast<std::size_t>(received);
        remaining -= static_cast<std::size_t>(received);
    }
    return true;
}

bool UnixSocket::SendString(std::string const& text)
{
    const auto length = static_cast<std::uint32_t>(text.size());
    unsigned char prefix[sizeof(length)];
    std::memcpy(prefix, &length, sizeof(length));
    if (!SendData(prefix, sizeof(prefix))) {
        return false;
    }
    // c_str() carries the terminating zero byte, which travels too.
    return SendData(reinterpret_cast<unsigned char const*>(text.c_str()), length + 1);
}

bool UnixSocket::ReceiveString(std::string& text)
{
    unsigned char prefix[sizeof(std::uint32_t)];
    if (!ReceiveData(prefix, sizeof(prefix))) {
        return false;
    }
    std::uint32_t length = 0;
    std::memcpy(&length, prefix, sizeof(length));
    if (length > c_maxFrameLength) {
        // Nothing past the prefix is read, so the stream cannot be framed any
        // further.
        log("frame too long ;");
        Disconnect();
        return false;
    }

    const std::size_t frameSize = static_cast<std::size_t>(length) + 1;
    // The length comes from the peer: running out of memory must end the
    // connection as a failure, not throw, so the buffer comes from calloc.
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc)
    FrameBuffer frame(static_cast<unsigned char*>(std::calloc(frameSize, 1)));
    if (!frame) {
        Disconnect();
        return false;
    }
    if (!ReceiveData(frame.get(), static_cast<unsigned int>(frameSize))) {
        return false;
    }
    const void* terminator = std::memchr(frame.get(), 0, frameSize);
    if (terminator == nullptr) {
        log("frame not terminated ;");
        Disconnect();
        return false;
    }
    text.assign(reinterpret_cast<const char*>(frame.get()),
                static_cast<std::size_t>(static_cast<const unsigned char*>(terminator) - frame.get()));
    return true;
}

bool UnixSocket::ReceiveString(std::string& text, unsigned int timeoutMs)
{
    if (!IsReadyForReading(timeoutMs)) {
        return false;
    }
    return ReceiveString(text);
}
