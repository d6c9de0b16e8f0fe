// Fuzz target: UnixSocket's framed receive, fed through a real stream socket.
//
// A listening UnixSocket is set up once under an abstract name of this
// process. Per input, a plain client socket connects, writes the input (at
// most 64 KiB, so the write fits in the socket buffer before anyone reads)
// and shuts its side; the accepted UnixSocket then receives frames until a
// receive fails, as it must at the latest at the end of the stream.
#include "UnixSocket.h"
#include "handles.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr std::size_t c_maxInput = 64 * 1024;

const std::string& hostName()
{
    static const std::string name = "kzol-fuzz/" + std::to_string(getpid()) + "/receive_string";
    return name;
}

UnixSocket& host()
{
    static UnixSocket socket;
    static const bool ready = socket.SetupHost(hostName().c_str(), 16) == 0;
    if (!ready) {
        std::abort();
    }
    return socket;
}

// The client end: the full-length abstract address, as the channel uses it.
UniqueFd connectClient()
{
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return fd;
    }
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    const std::string& name = hostName();
    std::memcpy(address.sun_path + 1, name.data(), std::min<std::size_t>(name.size(), sizeof(address.sun_path) - 1));
    if (connect(fd.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0) {
        fd.reset();
    }
    return fd;
}

}  // namespace

// A length prefix asks for a buffer of up to 2 GiB; under AddressSanitizer
// each such allocation paints hundreds of megabytes of shadow memory and
// brings the run down to a few inputs per second. No input can fill more
// than 64 KiB of a frame anyway, so buffers above 64 MiB are refused: the
// receive then takes its allocation-failure way out (close, false) instead of
// waiting for the end of the stream (close, false).
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    UnixSocket& listener = host();
    size = std::min(size, c_maxInput);

    const UniqueFd client(connectClient());
    if (!client) {
        std::abort();
    }
    std::size_t written = 0;
    while (written < size) {
        const ssize_t n = send(client.get(), data + written, size - written, MSG_NOSIGNAL);
        if (n <= 0) {
            std::abort();
        }
        written += static_cast<std::size_t>(n);
    }
    shutdown(client.get(), SHUT_WR);

    UnixSocket server;
    if (listener.AcceptConnection(server) != 0) {
        std::abort();
    }
    std::string text;
    std::size_t consumed = 0;
    while (server.ReceiveString(text)) {
        // A frame is a prefix, the text, and at least its terminator.
        consumed += 4 + text.size() + 1;
        if (text.find('\0') != std::string::npos || consumed > size) {
            __builtin_trap();
        }
    }
    // Every failed receive ends the connection.
    if (server.IsConnected()) {
        __builtin_trap();
    }
    return 0;
}
