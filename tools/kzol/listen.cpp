// kzol listen: the daemon's end of the report channel, for servicing and tests.
//
// Binds SfDaemon/UserMsg with the library's own UnixSocket (full-length
// abstract address), serves one connection at a time and prints every report
// frame it receives. Peers are not trusted: each frame must arrive within the
// receive timeout, or the connection is dropped, so a silent or stalled peer
// holds the listener up for one timeout at most. The library refuses length
// prefixes it cannot buffer and frames without their terminating zero byte.
//
// Signals: SIGINT and SIGTERM end the listener (exit 0); SIGALRM, from an
// interval timer armed while a frame is read, interrupts a receive that the
// peer keeps waiting. All three handlers only set a flag and are installed
// without SA_RESTART, so that blocking calls return.
#include <signal.h>
#include <sys/time.h>

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "UnixSocket.h"
#include "commands.h"
#include "common.h"

namespace kzol {

namespace {

constexpr char c_daemonName[] = "SfDaemon/UserMsg";
constexpr unsigned int c_backlog = 16;
// How long one accept wait lasts before the stop flag is looked at again.
constexpr unsigned int c_acceptWaitMs = 250;
constexpr unsigned int c_defaultReceiveTimeoutMs = 5000;
// After the deadline the timer keeps firing at this interval, so a receive
// entered just after a signal is still interrupted.
constexpr long c_deadlineRepeatUs = 100 * 1000;
// Bytes of a refused frame shown in its diagnostic line.
constexpr std::size_t c_shownBytes = 200;

volatile std::sig_atomic_t g_stopRequested = 0;
volatile std::sig_atomic_t g_deadlinePassed = 0;

extern "C" void onStopSignal(int)
{
    g_stopRequested = 1;
}

extern "C" void onDeadline(int)
{
    g_deadlinePassed = 1;
}

// Installs the listener's handlers. Only the timer's previous handler comes
// back on destruction: the stop handlers stay until the process ends, so a
// second SIGTERM on the way out (as `timeout` sends to the process group)
// cannot turn a clean stop into death by signal.
class SignalHandlers {
public:
    SignalHandlers()
    {
        install(SIGINT, onStopSignal, 0);
        install(SIGTERM, onStopSignal, 1);
        install(SIGALRM, onDeadline, 2);
    }
    ~SignalHandlers()
    {
        if (m_installed[2]) {
            ::sigaction(m_signal[2], &m_previous[2], nullptr);
        }
    }
    SignalHandlers(const SignalHandlers&) = delete;
    SignalHandlers& operator=(const SignalHandlers&) = delete;

private:
    void install(int signal, void (*handler)(int), int slot)
    {
        struct sigaction action {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;  // no SA_RESTART: blocking calls return with EINTR
        m_signal[slot] = signal;
        m_installed[slot] = ::sigaction(signal, &action, &m_previous[slot]) == 0;
    }

    int m_signal[3] = {};
    bool m_installed[3] = {};
    struct sigaction m_previous[3]{};
};

// Arms the real-time interval timer for one frame: SIGALRM after `timeoutMs`,
// then every c_deadlineRepeatUs until destruction disarms it.
class FrameDeadline {
public:
    explicit FrameDeadline(unsigned int timeoutMs)
    {
        g_deadlinePassed = 0;
        struct itimerval timer {};
        timer.it_value.tv_sec = static_cast<time_t>(timeoutMs / 1000);
        timer.it_value.tv_usec = static_cast<suseconds_t>((timeoutMs % 1000) * 1000);
        timer.it_interval.tv_usec = c_deadlineRepeatUs;
        ::setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~FrameDeadline()
    {
        struct itimerval off {};
        ::setitimer(ITIMER_REAL, &off, nullptr);
    }
    FrameDeadline(const FrameDeadline&) = delete;
    FrameDeadline& operator=(const FrameDeadline&) = delete;
};

struct ListenOptions {
    bool once = false;
    unsigned int count = 0;  // 0: no limit
    bool jsonLines = false;
    unsigned int receiveTimeoutMs = c_defaultReceiveTimeoutMs;
};

// "2025-01-31T12:34:56.789Z"
std::string utcNow()
{
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    struct tm calendar {};
    ::gmtime_r(&now.tv_sec, &calendar);
    char text[64];
    const std::size_t n = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &calendar);
    std::snprintf(text + n, sizeof(text) - n, ".%03ldZ", now.tv_nsec / 1000000L);
    return text;
}

void note(const std::string& message)
{
    std::cerr << "kzol listen: " << message << std::endl;
}

std::string shown(const std::string& bytes)
{
    if (bytes.size() <= c_shownBytes) {
        return printable(bytes);
    }
    return printable(bytes.substr(0, c_shownBytes)) + "...";
}

class Listener {
public:
    explicit Listener(const ListenOptions& options) : m_options(options), m_limit(options.once ? 1 : options.count)
    {
        Json::CharReaderBuilder::strictMode(&m_readerSettings.settings_);
        m_prettyWriter["indentation"] = "  ";
        m_compactWriter["indentation"] = "";
    }

    bool done() const { return g_stopRequested != 0 || (m_limit != 0 && m_reports >= m_limit); }

    // Reads frames until the peer closes, misbehaves, or the listener is done.
    void serve(UnixSocket& client)
    {
        const unsigned int timeoutMs = m_options.receiveTimeoutMs;
        unsigned int frames = 0;
        while (!done()) {
            std::string text;
            bool received;
            {
                const FrameDeadline deadline(timeoutMs);
                received = client.ReceiveString(text, timeoutMs);
            }
            if (g_stopRequested) {
                return;
            }
            if (!received) {
                if (client.IsConnected()) {
                    // Nothing arrived in time; the connection is still open.
                    note(frames == 0 ? "peer sent nothing within " + std::to_string(timeoutMs) + " ms; dropped"
                                     : "peer idle for " + std::to_string(timeoutMs) + " ms after " +
                                           std::to_string(frames) + " frame(s); dropped");
                    client.Disconnect();
                } else if (g_deadlinePassed) {
                    note("peer did not complete a frame within " + std::to_string(timeoutMs) + " ms; dropped");
                } else if (frames == 0) {
                    note("connection ended without a complete frame (bad length prefix, unterminated frame "
                         "or early close); dropped");
                }
                // Otherwise the peer closed after its frames: the normal end.
                return;
            }
            ++frames;
            handleFrame(text);
        }
    }

private:
    void handleFrame(const std::string& text)
    {
        Json::Value report;
        std::string errors;
        bool parsed = false;
        try {
            const std::unique_ptr<Json::CharReader> reader(m_readerSettings.newCharReader());
            parsed = reader->parse(text.data(), text.data() + text.size(), &report, &errors);
        } catch (const std::exception&) {  // jsoncpp throws past its nesting limit
            parsed = false;
        }
        const std::string size = std::to_string(text.size());
        if (!parsed) {
            note("frame of " + size + " bytes is not JSON: " + shown(text));
            return;
        }
        if (!report.isObject()) {
            note("frame of " + size + " bytes is JSON but not an object: " + shown(text));
            return;
        }
        ++m_reports;
        if (m_options.jsonLines) {
            std::cout << Json::writeString(m_compactWriter, report) << "\n";
        } else {
            std::cout << "--- report " << m_reports << ", received " << utcNow() << ", " << size << " bytes ---\n"
                      << Json::writeString(m_prettyWriter, report) << "\n";
        }
        std::cout.flush();
    }

    const ListenOptions& m_options;
    const unsigned int m_limit;
    unsigned int m_reports = 0;
    Json::CharReaderBuilder m_readerSettings;
    Json::StreamWriterBuilder m_prettyWriter;
    Json::StreamWriterBuilder m_compactWriter;
};

int runListen(const ListenOptions& options)
{
    g_stopRequested = 0;
    const SignalHandlers handlers;

    UnixSocket host;
    if (host.SetupHost(c_daemonName, c_backlog) != 0) {
        const int err = errno;
        if (err == EADDRINUSE) {
            return fail(std::string("another listener holds ") + c_daemonName);
        }
        return fail(std::string("cannot listen on ") + c_daemonName + ": " + errnoText(err));
    }
    std::cerr << "kzol listen: listening on " << c_daemonName << std::endl;

    Listener listener(options);
    while (!listener.done()) {
        UnixSocket client;
        if (host.AcceptConnection(client, c_acceptWaitMs, true) != 0) {
            continue;  // timed out or interrupted: look at the stop flag again
        }
        try {
            listener.serve(client);
        } catch (const std::bad_alloc&) {
            note("out of memory while serving a connection; dropped");
        }
    }
    std::cout.flush();
    return c_exitSuccess;
}

}  // namespace

void addListenCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<ListenOptions>();
    CLI::App* cmd = app.add_subcommand("listen", "Receive and print security reports, as the daemon would");
    CLI::Option* once = cmd->add_flag("--once", options->once, "Exit after the first report");
    cmd->add_option("--count", options->count, "Exit after N reports")->check(CLI::PositiveNumber)->excludes(once);
    cmd->add_flag("--json-lines", options->jsonLines, "Print each report as one compact JSON object per line");
    cmd->add_option("--receive-timeout", options->receiveTimeoutMs,
                    "Milliseconds a peer has for each frame (default 5000)")
        ->check(CLI::Range(1u, 3600000u));
    cmd->footer("Binds the abstract socket SfDaemon/UserMsg (full-length address) and serves one connection\n"
                "at a time, reading frames until the peer closes. Each frame must arrive completely within\n"
                "the receive timeout (5 seconds unless --receive-timeout says otherwise); a peer that sends\n"
                "nothing, stalls, sends a bad length prefix or an unterminated frame is dropped with a line on\n"
                "standard error, and serving goes on. A frame that is not a JSON object is reported on\n"
                "standard error and not counted.\n"
                "Standard output carries only the reports: a header line (report number, time received in\n"
                "UTC, text length) and the indented JSON, or one compact JSON object per line with\n"
                "--json-lines; it is flushed after each report. \"listening on SfDaemon/UserMsg\" goes to\n"
                "standard error once the name is bound. SIGINT or SIGTERM ends the listener.\n"
                "Exit status: 0 the count was reached or a signal ended it; 2 the name is taken by another\n"
                "listener, it cannot be bound, or bad usage.\n");
    cmd->callback([options, &status]() { status = runListen(*options); });
}

}  // namespace kzol
