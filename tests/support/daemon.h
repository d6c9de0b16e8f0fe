// A stand-in for the platform's security daemon, built from plain sockets (not
// from the library's socket class): it binds the full-length abstract address
// of "SfDaemon/UserMsg" and keeps every byte each connection sent; and the
// texts the daemon is expected to receive.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace kzol_test {

class DaemonListener {
public:
    // With `closeAtOnce` every connection is closed unread as soon as it is
    // accepted (its stream is empty).
    explicit DaemonListener(bool closeAtOnce = false);
    ~DaemonListener() { stop(); }

    // Serves the connections already made, then releases the name.
    void stop();
    // Waits (at most 20 s) until `count` connections have ended; answers the
    // bytes of every connection that has ended so far.
    std::vector<std::string> streams(std::size_t count);
    // Every stream received since the last drain, in order. A marker
    // connection made here is served after every connection queued before
    // it, so nothing sent before the call is missed.
    std::vector<std::string> drain();

private:
    void serve();

    bool m_closeAtOnce;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_streams;
    std::size_t m_drained = 0;
};

// One frame: the 4-byte host-order length, the text, a zero byte.
std::string frame(const std::string& text);
// A report's text as the daemon receives it; without `sequence` the
// Report/ReportSeq member is left out.
std::string reportText(int kind, const std::string& caller, const std::string& fileType,
                       const std::string& description, const std::string& path, const char* sequence = nullptr);
// The text of a stream that must hold exactly one whole frame (checked),
// without its Report/ReportSeq member.
std::string unsequenced(const std::string& stream);
// The lines logged when nothing listens on the daemon's name.
const std::vector<std::string> c_noDaemonLines = {
    errorLine("UnixSocket.cpp", "ConnectToHost", "connect() error ;"),
    errorLine("bs_context.cpp", "SendRequestNotification", "Failed to connect to vexmd;")};

}  // namespace kzol_test
