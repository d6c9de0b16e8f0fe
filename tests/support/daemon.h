// A stand-in for the platform's security daemon, built from plain sockets (not
// from the library's socket class): it binds the full-length abstract address
// of "SfDaemon/UserMsg" and keeps every byte each connection sent.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kzol_test {

class DaemonListener {
public:
    // With `closeAtOnce` every connection is closed as soon as it is accepted.
    explicit DaemonListener(bool closeAtOnce = false);
    ~DaemonListener();
    DaemonListener(const DaemonListener&) = delete;
    DaemonListener& operator=(const DaemonListener&) = delete;

    // Stops accepting and releases the name; connections not yet accepted are
    // dropped.
    void stop();
    // Waits (at most 20 s) until `count` connections have ended; answers the
    // bytes of every connection that has ended so far.
    std::vector<std::string> streams(std::size_t count);
    // Every stream received since the last drain, in order. A marker
    // connection made here is served after every connection queued before
    // it, so nothing sent before the call is missed.
    std::vector<std::string> drain();
    // Waits (at most 10 s) until `count` connections were closed at once.
    bool waitClosed(int count);

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
    int m_closed = 0;
};

// One frame: the 4-byte host-order length, the text, a zero byte.
std::string frame(const std::string& text);
// The text of a stream that must hold exactly one whole frame (checked).
std::string onlyFrameText(const std::string& stream);

}  // namespace kzol_test
