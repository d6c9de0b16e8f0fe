// kzol listen: the daemon's end of the report channel, for servicing and tests.
//
// Binds SfDaemon/UserMsg on the channel's full-length abstract address (as
// the library's UnixSocket addresses it) and prints every report frame it
// receives. Peers are not trusted, and none may hold up another: every
// connection is non-blocking and served from one poll loop, each with a frame
// of its own in assembly (FrameReader), read a piece at a time as it arrives.
//  - A whole frame must arrive within the receive timeout, counted from the
//    connection's start or its previous frame; a peer that misses it is dropped.
//  - A declared length above the frame limit drops the connection at its
//    prefix, before anything is allocated for it; a frame holds only the
//    bytes that have arrived, so memory stays within the connection limit
//    times the frame limit.
//  - Beyond the connection limit, the connection idle the longest makes room
//    for the new one.
// Every drop is said on standard error with its reason, and counted; the
// counts are said when the listener ends.
//
// Signals: SIGINT and SIGTERM end the listener (exit 0). Their handlers only
// set a flag and are installed without SA_RESTART, so that a blocked write
// returns; around the wait they are blocked, and the wait itself (ppoll)
// unblocks them, so a signal cannot slip in between the look at the flag
// and the wait.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "common.h"
#include "frame_reader.h"

namespace kzol {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char c_daemonName[] = "SfDaemon/UserMsg";
constexpr int c_backlog = 128;
constexpr unsigned int c_defaultReceiveTimeoutMs = 5000;
constexpr std::uint32_t c_defaultMaxFrame = 64 * 1024;
constexpr std::uint32_t c_largestMaxFrame = 16 * 1024 * 1024;
constexpr unsigned int c_defaultMaxConnections = 64;
constexpr unsigned int c_largestMaxConnections = 4096;
// Connections taken from the queue per turn of the loop, so that a burst of
// them does not hold up the reading of those already open.
constexpr unsigned int c_acceptsPerTurn = 64;
// How long accepting pauses when the process is out of descriptors and has
// no connection to give up for a new one.
constexpr auto c_acceptPause = std::chrono::milliseconds(100);
// The most read from one connection per turn of the loop.
constexpr std::size_t c_readPiece = std::size_t{64} * 1024;
// Bytes of a refused frame shown in its diagnostic line.
constexpr std::size_t c_shownBytes = 200;

// Set by the stop handler, looked at by the loop.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
volatile std::sig_atomic_t g_stopRequested = 0;

extern "C" void onStopSignal(int /*signal*/)
{
    g_stopRequested = 1;
}

// Installs the stop handlers for the rest of the process: a second SIGTERM on
// the way out (as `timeout` sends to the process group) cannot turn a clean
// stop into death by signal.
void installStopHandlers()
{
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: blocking calls return with EINTR
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

struct ListenOptions {
    bool once = false;
    unsigned int count = 0;  // 0: no limit
    bool jsonLines = false;
    unsigned int receiveTimeoutMs = c_defaultReceiveTimeoutMs;
    std::uint32_t maxFrame = c_defaultMaxFrame;
    unsigned int maxConnections = c_defaultMaxConnections;
};

// Why a connection was dropped; the names are those of the closing counts.
enum class Drop { Silent, Idle, Stalled, TooLong, Unterminated, Truncated, Evicted, ReceiveFailed, OutOfMemory };
constexpr std::array<const char*, 9> c_dropNames = {
    "sent nothing in time", "idle too long",        "stalled inside a frame",    "frame too long",
    "unterminated frame",   "ended inside a frame", "over the connection limit", "receive failed",
    "out of memory",
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
    (void)std::snprintf(text + n, sizeof(text) - n, ".%03ldZ", now.tv_nsec / 1000000L);
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

std::string counted(unsigned long n, const std::string& what)
{
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// The listening socket on the channel's address: a zero byte, the name, zero
// padding, the whole structure's length. -1 (errno set) on failure.
UniqueFd listenOnDaemonName()
{
    UniqueFd host(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!host) {
        return host;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, c_daemonName, sizeof(c_daemonName) - 1);
    if (::bind(host.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(host.get(), c_backlog) != 0) {
        host.reset();
    }
    return host;
}

// One accepted peer and the frame it is sending.
struct Connection {
    UniqueFd fd;  // closed once the connection is done with
    unsigned long serial;
    pid_t pid;
    FrameReader reader;
    Clock::time_point frameDue;    // since when the current frame has been awaited
    Clock::time_point lastActive;  // accepted, or bytes last received
    unsigned int frames;
};

class Listener {
public:
    explicit Listener(const ListenOptions& options)
        : m_options(options), m_limit(options.once ? 1 : options.count),
          m_timeout(std::chrono::milliseconds(options.receiveTimeoutMs)), m_piece(c_readPiece)
    {
        Json::CharReaderBuilder::strictMode(&m_readerSettings.settings_);
        m_prettyWriter["indentation"] = "  ";
        m_compactWriter["indentation"] = "";
    }

    [[nodiscard]] bool done() const { return g_stopRequested != 0 || (m_limit != 0 && m_reports >= m_limit); }

    // Serves connections on `host` until a signal or the report count ends it.
    void run(int host)
    {
        sigset_t stopSignals;
        sigemptyset(&stopSignals);
        sigaddset(&stopSignals, SIGINT);
        sigaddset(&stopSignals, SIGTERM);
        std::vector<struct pollfd> ready;
        while (!done()) {
            expire(Clock::now());
            ready.clear();
            const bool accepting = Clock::now() >= m_acceptPausedUntil;
            ready.push_back({accepting ? host : -1, POLLIN, 0});
            for (const Connection& connection : m_connections) {
                ready.push_back({connection.fd.get(), POLLIN, 0});
            }
            struct timespec wait {};
            const bool waitForever = waitTime(accepting, wait);

            sigset_t previous;
            ::pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
            if (g_stopRequested != 0) {
                ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
                break;
            }
            sigset_t whileWaiting = previous;
            sigdelset(&whileWaiting, SIGINT);
            sigdelset(&whileWaiting, SIGTERM);
            const int count = ::ppoll(ready.data(), ready.size(), waitForever ? nullptr : &wait, &whileWaiting);
            ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
            if (count <= 0) {
                continue;  // time to expire connections, or a signal
            }
            // The connections polled come first in m_connections, in order;
            // those accepted below are appended after them.
            for (std::size_t i = 0; i + 1 < ready.size() && !done(); ++i) {
                if (ready[i + 1].revents != 0) {
                    receive(m_connections[i]);
                }
            }
            removeClosed();
            if (ready[0].revents != 0 && !done()) {
                acceptPeers(host);
            }
        }
    }

    // The closing line: what was printed, refused and dropped.
    void summarise() const
    {
        unsigned long dropped = 0;
        std::string reasons;
        for (std::size_t i = 0; i < m_drops.size(); ++i) {
            if (m_drops[i] != 0) {
                dropped += m_drops[i];
                reasons += (reasons.empty() ? " (" : ", ") + std::to_string(m_drops[i]) + " " + c_dropNames[i];
            }
        }
        note(counted(m_reports, "report") + " printed, " + counted(m_refusedFrames, "frame") + " refused, " +
             counted(dropped, "connection") + " dropped" + (reasons.empty() ? "" : reasons + ")"));
    }

private:
    // The time to the nearest frame deadline or the end of an accept pause;
    // false when there is one, true to wait for events alone.
    bool waitTime(bool accepting, struct timespec& wait) const
    {
        bool any = !accepting;
        Clock::time_point until = m_acceptPausedUntil;
        for (const Connection& connection : m_connections) {
            const Clock::time_point deadline = connection.frameDue + m_timeout;
            if (!any || deadline < until) {
                until = deadline;
            }
            any = true;
        }
        if (!any) {
            return true;
        }
        const auto left = std::max(Clock::duration::zero(), until - Clock::now());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        wait.tv_sec = static_cast<time_t>(seconds.count());
        wait.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count());
        return false;
    }

    // Drops every connection whose frame is overdue.
    void expire(Clock::time_point now)
    {
        const std::string limit = std::to_string(m_options.receiveTimeoutMs) + " ms";
        for (Connection& connection : m_connections) {
            if (now < connection.frameDue + m_timeout) {
                continue;
            }
            if (connection.reader.insideFrame()) {
                drop(connection, Drop::Stalled, "did not complete a frame within " + limit);
            } else if (connection.frames == 0) {
                drop(connection, Drop::Silent, "sent nothing within " + limit);
            } else {
                drop(connection, Drop::Idle,
                     "idle for " + limit + " after " + std::to_string(connection.frames) + " frame(s)");
            }
        }
        removeClosed();
    }

    // Takes new connections off the queue, making room for each one as needed.
    void acceptPeers(int host)
    {
        for (unsigned int taken = 0; taken < c_acceptsPerTurn && !done(); ++taken) {
            UniqueFd peer(::accept4(host, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (!peer) {
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                    if (!m_connections.empty()) {
                        evictLongestIdle();
                        continue;
                    }
                    m_acceptPausedUntil = Clock::now() + c_acceptPause;
                    return;
                }
                if (errno == ECONNABORTED || errno == EINTR) {
                    continue;
                }
                return;  // the queue is empty (EAGAIN), or accepting fails: poll again
            }
            struct ucred credentials {};
            socklen_t size = sizeof(credentials);
            if (::getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
                credentials.pid = 0;
            }
            if (m_connections.size() >= m_options.maxConnections) {
                evictLongestIdle();
            }
            const Clock::time_point now = Clock::now();
            m_connections.push_back(
                Connection{std::move(peer), ++m_serial, credentials.pid, FrameReader(m_options.maxFrame), now, now, 0});
        }
    }

    void evictLongestIdle()
    {
        const auto longest =
            std::min_element(m_connections.begin(), m_connections.end(), [](const Connection& a, const Connection& b) {
                return a.lastActive != b.lastActive ? a.lastActive < b.lastActive : a.serial < b.serial;
            });
        drop(*longest, Drop::Evicted,
             "idle the longest of " + std::to_string(m_connections.size()) + " connections, making room for a new one");
        removeClosed();
    }

    // One read from a ready connection: at most what its frame still lacks.
    void receive(Connection& connection)
    {
        const std::size_t wanted = std::min(connection.reader.wanted(), m_piece.size());
        const ssize_t got = ::recv(connection.fd.get(), m_piece.data(), wanted, 0);
        if (got < 0) {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                drop(connection, Drop::ReceiveFailed, "receive failed: " + errnoText(errno));
            }
            return;
        }
        if (got == 0) {
            if (connection.reader.insideFrame()) {
                drop(connection, Drop::Truncated, "closed the connection inside a frame");
            } else {
                connection.fd.reset();  // closed after its frames: the normal end
            }
            return;
        }
        const Clock::time_point now = Clock::now();
        connection.lastActive = now;
        try {
            switch (connection.reader.take(m_piece.data(), static_cast<std::size_t>(got))) {
            case FrameReader::Result::More: break;
            case FrameReader::Result::Frame:
                ++connection.frames;
                connection.frameDue = now;
                handleFrame(connection, connection.reader.takeText());
                break;
            case FrameReader::Result::TooLong:
                drop(connection, Drop::TooLong,
                     "declared a frame of " + std::to_string(connection.reader.declaredLength()) +
                         " bytes, over the limit of " + std::to_string(m_options.maxFrame));
                break;
            case FrameReader::Result::Unterminated:
                drop(connection, Drop::Unterminated,
                     "sent a frame of " + std::to_string(connection.reader.declaredLength()) +
                         " bytes without its terminating zero byte");
                break;
            }
        } catch (const std::bad_alloc&) {
            drop(connection, Drop::OutOfMemory, "out of memory for its frame");
        }
    }

    static std::string peerName(const Connection& connection)
    {
        return "peer " + std::to_string(connection.serial) + " (pid " + std::to_string(connection.pid) + "): ";
    }

    // Says why, counts, and closes; removeClosed() takes the connection out.
    void drop(Connection& connection, Drop reason, const std::string& why)
    {
        ++m_drops[static_cast<std::size_t>(reason)];
        note(peerName(connection) + why + "; dropped");
        connection.fd.reset();
    }

    void removeClosed()
    {
        m_connections.erase(std::remove_if(m_connections.begin(), m_connections.end(),
                                           [](const Connection& connection) { return !connection.fd; }),
                            m_connections.end());
    }

    void handleFrame(const Connection& connection, const std::string& text)
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
        if (!parsed || !report.isObject()) {
            ++m_refusedFrames;
            note(peerName(connection) + "frame of " + size + " bytes is " +
                 (parsed ? "JSON but not an object: " : "not JSON: ") + shown(text));
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
    const Clock::duration m_timeout;
    unsigned long m_reports = 0;
    unsigned long m_refusedFrames = 0;
    std::array<unsigned long, c_dropNames.size()> m_drops{};
    std::vector<Connection> m_connections;
    unsigned long m_serial = 0;
    Clock::time_point m_acceptPausedUntil{};
    std::vector<char> m_piece;  // one read's bytes, before the frame takes them
    Json::CharReaderBuilder m_readerSettings;
    Json::StreamWriterBuilder m_prettyWriter;
    Json::StreamWriterBuilder m_compactWriter;
};

int runListen(const ListenOptions& options)
{
    g_stopRequested = 0;
    installStopHandlers();

    const UniqueFd host = listenOnDaemonName();
    if (!host) {
        const int err = errno;
        if (err == EADDRINUSE) {
            return fail(std::string("another listener holds ") + c_daemonName);
        }
        return fail(std::string("cannot listen on ") + c_daemonName + ": " + errnoText(err));
    }
    std::cerr << "kzol listen: listening on " << c_daemonName << std::endl;

    Listener listener(options);
    listener.run(host.get());
    std::cout.flush();
    listener.summarise();
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
        ->check(CLI::Range(1U, 3600000U));
    cmd->add_option("--max-frame", options->maxFrame, "Longest frame text accepted, in bytes (default 65536)")
        ->check(CLI::Range(std::uint32_t{1}, c_largestMaxFrame));
    cmd->add_option("--max-connections", options->maxConnections, "Connections open at once (default 64)")
        ->check(CLI::Range(1U, c_largestMaxConnections));
    cmd->footer("Binds the abstract socket SfDaemon/UserMsg (full-length address) and serves every connection\n"
                "at once, reading frames until each peer closes; a slow or silent peer holds up no other.\n"
                "Each frame must arrive completely within the receive timeout (5 seconds unless\n"
                "--receive-timeout says otherwise), counted from the connection's start or its previous\n"
                "frame. A peer is dropped when it misses that time, declares a frame longer than --max-frame\n"
                "(dropped at its length prefix, before anything is allocated for it), sends a frame without\n"
                "its terminating zero byte, or closes inside a frame; beyond --max-connections open\n"
                "connections, the one idle the longest is dropped to make room. Frames held in memory come to\n"
                "at most --max-connections times --max-frame bytes. Each drop is said on standard error with\n"
                "its peer (number and process ID) and reason, and serving goes on; a frame that is not a\n"
                "JSON object is said there too and not counted. When the listener ends, one line on standard\n"
                "error counts the reports printed, the frames refused and the connections dropped, by reason.\n"
                "Standard output carries only the reports: a header line (report number, time received in\n"
                "UTC, text length) and the indented JSON, or one compact JSON object per line with\n"
                "--json-lines; it is flushed after each report. \"listening on SfDaemon/UserMsg\" goes to\n"
                "standard error once the name is bound. SIGINT or SIGTERM ends the listener.\n"
                "Exit status: 0 the count was reached or a signal ended it; 2 the name is taken by another\n"
                "listener, it cannot be bound, or bad usage.\n");
    cmd->callback([options, &status]() { status = runListen(*options); });
}

}  // namespace kzol
