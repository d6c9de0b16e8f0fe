// A stand-in for the platform's security daemon, built from plain sockets (not
// from the library's socket class): it binds the full-length abstract address
// of "SfDaemon/UserMsg" and keeps every byte each connection sent; and the
// texts the daemon is expected to receive.
#pragma once

#include <string>
#include <vector>

#include "test_support.h"

namespace kzol_test {

// Connections queue up on the name until drain() serves them: the library
// connects, sends and closes before its call returns, so the queue then holds
// everything the call sent.
class DaemonListener {
public:
    DaemonListener();
    ~DaemonListener() { stop(); }
    DaemonListener(const DaemonListener&) = delete;
    DaemonListener& operator=(const DaemonListener&) = delete;
    // Releases the name: connections fail from then on.
    void stop();
    // The bytes of every connection queued since the last drain, in order.
    std::vector<std::string> drain();

private:
    int m_fd;
};

// One frame: the 4-byte host-order length, the text, a zero byte.
std::string frame(const std::string& text);
// A report's text as the daemon receives it; without `sequence` the
// Report/ReportSeq member is left out.
std::string reportText(int kind, const std::string& caller, const std::string& fileType,
                       const std::string& description, const std::string& path, const char* sequence = nullptr);
// The texts of streams that must each hold exactly one whole frame (checked),
// without their Report/ReportSeq member.
std::vector<std::string> unsequenced(const std::vector<std::string>& streams);
// The lines logged when nothing listens on the daemon's name.
const std::vector<std::string> c_noDaemonLines = {
    errorLine("UnixSocket.cpp", "ConnectToHost", "connect() error ;"),
    errorLine("bs_context.cpp", "SendRequestNotification", "Failed to connect to vexmd;")};

}  // namespace kzol_test
