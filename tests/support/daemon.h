// Plain sockets of the tests (not the library's socket class) on abstract
// names; a stand-in for the platform's security daemon, listening on
// "SfDaemon/UserMsg"; and the frames and texts the daemon receives.
#pragma once

#include <cstdint>
#include <ctime>

#include "handles.h"
#include "test_support.h"

namespace kzol_test {

// A stream socket on the full 110-byte abstract address of `name`: listening
// (non-blocking, so that accept answers at once) or connected; -1 on failure.
UniqueFd abstractSocket(const std::string& name, bool listening);

// Connections queue up on the daemon's name until drain() serves them: the
// library connects, sends and closes before its call returns, so the queue
// then holds everything the call sent.
class DaemonListener {
public:
    DaemonListener();
    // Releases the name: connections fail from then on.
    void stop() { m_socket = UniqueFd(); }
    // The bytes of every connection queued since the last drain, in order.
    Lines drain();

private:
    UniqueFd m_socket;
};

// The time of day the library numbers its reports by (this program's
// CLOCK_REALTIME): 01:02:03.000004999 unless a test sets another.
extern timespec g_reportTime;

std::string prefix(std::uint32_t length);    // a frame's length, 4 bytes in host order
std::string frame(const std::string& text);  // prefix, text, a zero byte
// A report's text as the daemon receives it (numbered 0102034 by default).
std::string reportText(int kind, const std::string& caller, const std::string& fileType, const std::string& description,
                       const std::string& path, const std::string& sequence = "0102034");
// The frame of the refusal of `path` by `caller`, naming the verification's result.
std::string refusalFrame(const std::string& path, const std::string& result = "BS_NOT_SIGNED",
                         const std::string& caller = "loader");
// The lines logged when nothing listens on the daemon's name.
const Lines c_noDaemonLines = {errorLine("UnixSocket.cpp", "ConnectToHost", "connect() error ;"),
                               errorLine("bs_context.cpp", "SendRequestNotification", "Failed to connect to vexmd;")};

}  // namespace kzol_test
