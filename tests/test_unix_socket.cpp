// UnixSocket: the framed channel over abstract-namespace stream sockets,
// driven through libkZOLUser with real sockets. The peers that check the wire
// are plain sockets of the test, so the framing and the address form are
// checked against the system rather than against the class itself.
#include "UnixSocket.h"
#include "test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using kzol_test::errorLine;
using kzol_test::LogRecorder;
using kzol_test::StderrCapture;

const char* const c_file = "UnixSocket.cpp";
using Lines = std::vector<std::string>;

static_assert(!std::is_copy_constructible<UnixSocket>::value, "a socket object owns its descriptor");
static_assert(!std::is_copy_assignable<UnixSocket>::value, "a socket object owns its descriptor");
static_assert(sizeof(struct sockaddr_un) == 110, "the channel's addresses are 110 bytes long");

// A descriptor of the test's own, closed when it goes.
class Fd {
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    Fd& operator=(Fd&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_fd = other.m_fd;
            other.m_fd = -1;
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    void reset()
    {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd;
};

// Abstract names of this process, one per use.
std::string uniqueName(const std::string& tag)
{
    static unsigned counter = 0;
    return "kzol-test/" + std::to_string(getpid()) + "/" + tag + "/" + std::to_string(++counter);
}

// The address as the daemon's side of the channel writes it: zero byte, the
// name (at most 107 bytes), zero padding, used with the full length.
struct sockaddr_un fullAddress(const std::string& name)
{
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), std::min<std::size_t>(name.size(), 107));
    return address;
}

const socklen_t c_fullLength = sizeof(struct sockaddr_un);

// The length most programs use for abstract names: up to the name's end.
socklen_t shortLength(const std::string& name)
{
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
}

Fd rawListener(const std::string& name, socklen_t length)
{
    Fd s(socket(AF_UNIX, SOCK_STREAM, 0));
    const struct sockaddr_un address = fullAddress(name);
    if (!s.valid() || bind(s.get(), reinterpret_cast<const struct sockaddr*>(&address), length) != 0 ||
        listen(s.get(), 8) != 0) {
        ADD_FAILURE() << "raw listener on " << name << ": " << std::strerror(errno);
        return Fd();
    }
    return s;
}

// Reads on the test's own sockets give up after a while, so that a fault in
// the framing fails a test instead of hanging it.
Fd withReadTimeout(Fd s)
{
    const struct timeval limit = {10, 0};
    if (s.valid()) {
        setsockopt(s.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    return s;
}

// A connected raw client, or an invalid Fd when the connect is refused.
Fd rawClient(const std::string& name, socklen_t length)
{
    Fd s(socket(AF_UNIX, SOCK_STREAM, 0));
    const struct sockaddr_un address = fullAddress(name);
    if (!s.valid() || connect(s.get(), reinterpret_cast<const struct sockaddr*>(&address), length) != 0) {
        return Fd();
    }
    return withReadTimeout(std::move(s));
}

// Accepts on a raw listener if a connection is waiting within the time.
Fd rawAccept(int listener, int timeoutMs)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(listener, &set);
    struct timeval timeout = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    if (select(listener + 1, &set, nullptr, nullptr, &timeout) <= 0) {
        return Fd();
    }
    return withReadTimeout(Fd(accept(listener, nullptr, nullptr)));
}

void writeAll(int fd, const std::string& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        ASSERT_GT(n, 0) << std::strerror(errno);
        done += static_cast<std::size_t>(n);
    }
}

// Everything up to the end of the stream.
std::string readAll(int fd)
{
    std::string bytes;
    char buffer[65536];
    ssize_t n;
    while ((n = recv(fd, buffer, sizeof(buffer), 0)) > 0) {
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    return bytes;
}

// A length prefix in host byte order.
std::string prefix(std::uint32_t length)
{
    std::string bytes(4, '\0');
    std::memcpy(&bytes[0], &length, 4);
    return bytes;
}

std::string frameOf(const std::string& text)
{
    return prefix(static_cast<std::uint32_t>(text.size())) + text + std::string(1, '\0');
}

bool descriptorOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

// The descriptors the library holds are private to its objects; the tests
// find them by what the system says about each open socket of the process.
enum class Role { Listening, Accepted, Client };

std::vector<int> descriptorsOf(const std::string& name, Role role)
{
    std::vector<int> open;
    {
        std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/proc/self/fd"), closedir);
        if (!dir) {
            ADD_FAILURE() << "cannot list /proc/self/fd";
            return {};
        }
        const int own = dirfd(dir.get());
        while (const struct dirent* entry = readdir(dir.get())) {
            if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != own) {
                open.push_back(std::atoi(entry->d_name));
            }
        }
    }
    const struct sockaddr_un expected = fullAddress(name);
    std::vector<int> found;
    for (int fd : open) {
        struct sockaddr_un address;
        std::memset(&address, 0, sizeof(address));
        socklen_t length = sizeof(address);
        const int rc = role == Role::Client ? getpeername(fd, reinterpret_cast<struct sockaddr*>(&address), &length)
                                            : getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length);
        if (rc != 0 || length != c_fullLength || std::memcmp(&address, &expected, sizeof(address)) != 0) {
            continue;
        }
        if (role != Role::Client) {
            int listening = 0;
            socklen_t size = sizeof(listening);
            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size);
            if ((listening != 0) != (role == Role::Listening)) {
                continue;
            }
        }
        found.push_back(fd);
    }
    return found;
}

int onlyDescriptorOf(const std::string& name, Role role)
{
    const std::vector<int> found = descriptorsOf(name, role);
    if (found.size() != 1) {
        ADD_FAILURE() << found.size() << " descriptors for " << name;
        return -1;
    }
    return found.front();
}

template <typename F>
long long millisecondsOf(F&& f)
{
    const auto start = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// A listening library socket and a connection accepted from it, with the raw
// client on the other end.
struct Connection {
    std::string name;
    UnixSocket host;
    UnixSocket server;
    Fd client;
};

void connectRawClient(Connection& c, const std::string& tag)
{
    c.name = uniqueName(tag);
    ASSERT_EQ(c.host.SetupHost(c.name.c_str(), 4), 0);
    c.client = rawClient(c.name, c_fullLength);
    ASSERT_TRUE(c.client.valid());
    ASSERT_EQ(c.host.AcceptConnection(c.server, 1000, false), 0);
    ASSERT_TRUE(c.server.IsConnected());
}

// ---------------------------------------------------------------------------

TEST(UnixSocketObject, NewObjectHoldsNothing)
{
    LogRecorder::clear();
    StderrCapture err;
    {
        UnixSocket s;
        EXPECT_FALSE(s.IsConnected());
        EXPECT_EQ(s.Disconnect(), 0);
        EXPECT_EQ(s.Disconnect(), 0);
        // Zero-length transfers make no system call, so even without a
        // descriptor they succeed and log nothing.
        unsigned char byte = 0x5A;
        EXPECT_TRUE(s.SendData(&byte, 0));
        EXPECT_TRUE(s.ReceiveData(&byte, 0));
        EXPECT_EQ(byte, 0x5A);
        EXPECT_FALSE(s.IsConnected());
    }
    EXPECT_EQ(err.finish(), "");
    EXPECT_EQ(LogRecorder::lines(), Lines{});
}

TEST(UnixSocketWire, SendStringWritesOneFrameByteForByte)
{
    struct Case {
        const char* label;
        std::string text;
        std::string wire;
    };
    // Length prefixes in the byte order of the (little-endian) hosts.
    const std::vector<Case> cases = {
        {"three letters", "abc", std::string("\x03\x00\x00\x00" "abc\x00", 8)},
        {"empty text", "", std::string("\x00\x00\x00\x00\x00", 5)},
        {"zero byte inside", std::string("a\0b", 3), std::string("\x03\x00\x00\x00" "a\x00" "b\x00", 8)},
        {"256 bytes", std::string(256, 'x'), std::string("\x00\x01\x00\x00", 4) + std::string(256, 'x') + '\0'},
        {"70000 bytes", std::string(70000, 'y'),
         std::string("\x70\x11\x01\x00", 4) + std::string(70000, 'y') + '\0'},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const std::string name = uniqueName("wire");
        Fd listener = rawListener(name, c_fullLength);
        ASSERT_TRUE(listener.valid());
        UnixSocket socket;
        ASSERT_EQ(socket.ConnectToHost(name.c_str()), 0);
        Fd peer = rawAccept(listener.get(), 1000);
        ASSERT_TRUE(peer.valid());
        std::string received;
        std::thread reader([&] { received = readAll(peer.get()); });
        StderrCapture err;
        const bool sent = socket.SendString(c.text);
        EXPECT_EQ(socket.Disconnect(), 0);
        reader.join();
        EXPECT_EQ(err.finish(), "");
        EXPECT_TRUE(sent);
        EXPECT_EQ(received, c.wire);
    }
}

TEST(UnixSocketWire, ReceiveStringReadsFramesFromTheStream)
{
    struct Case {
        const char* label;
        std::string wire;          // written by the peer, which then shuts its side
        std::vector<std::string> texts;  // the frames that arrive, in order
        std::string error;         // standard error of the receive that fails next
        std::string leftOver;      // bytes the failed receive must not have read
    };
    const std::string eof = "peer is shutdown;\n";
    const std::vector<Case> cases = {
        {"one frame", frameOf("abc"), {"abc"}, eof, ""},
        {"frames in a row", frameOf("abc") + frameOf("") + frameOf("de"), {"abc", "", "de"}, eof, ""},
        {"empty frame", std::string(5, '\0'), {""}, eof, ""},
        {"zero byte inside cuts the text", prefix(5) + std::string("ab\0cd\0", 6) + frameOf("next"),
         {"ab", "next"}, eof, ""},
        {"nothing at all", "", {}, eof, ""},
        {"peer closes inside the prefix", std::string("\x02\x00", 2), {}, eof, ""},
        {"peer closes inside the text", prefix(5) + "ab", {}, eof, ""},
        {"peer closes before the terminator", prefix(2) + "ab", {}, eof, ""},
        {"last byte is not zero", prefix(3) + "abcd" + "tail", {}, "frame not terminated ;\n", "tail"},
        {"unterminated empty frame after a good one", frameOf("ok") + prefix(0) + "x" + frameOf("z"), {"ok"},
         "frame not terminated ;\n", frameOf("z")},
        {"length 2^31 - 1", prefix(0x7FFFFFFFu) + frameOf("abc"), {}, "frame too long ;\n", frameOf("abc")},
        {"length 2^32 - 1", prefix(0xFFFFFFFFu) + "abc", {}, "frame too long ;\n", "abc"},
        {"length 2^31 - 2 is still read", prefix(0x7FFFFFFEu) + "abc", {}, eof, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Connection conn;
        conn.name = uniqueName("receive");
        ASSERT_EQ(conn.host.SetupHost(conn.name.c_str(), 4), 0);
        conn.client = rawClient(conn.name, c_fullLength);
        ASSERT_TRUE(conn.client.valid());
        writeAll(conn.client.get(), c.wire);
        ASSERT_EQ(shutdown(conn.client.get(), SHUT_WR), 0);
        ASSERT_EQ(conn.host.AcceptConnection(conn.server), 0);
        const int serverFd = onlyDescriptorOf(conn.name, Role::Accepted);
        ASSERT_GE(serverFd, 0);
        // A second handle on the same stream shows what is left unread.
        Fd view(dup(serverFd));
        ASSERT_TRUE(view.valid());

        LogRecorder::clear();
        StderrCapture err;
        for (const std::string& expected : c.texts) {
            std::string text = "previous";
            ASSERT_TRUE(conn.server.ReceiveString(text));
            EXPECT_EQ(text, expected);
        }
        std::string text = "unchanged";
        EXPECT_FALSE(conn.server.ReceiveString(text));
        EXPECT_FALSE(conn.server.IsConnected());
        EXPECT_FALSE(descriptorOpen(serverFd));
        EXPECT_EQ(err.finish(), c.error);
        EXPECT_EQ(text, "unchanged");
        EXPECT_EQ(readAll(view.get()), c.leftOver);
        EXPECT_EQ(LogRecorder::lines(), Lines{});
    }
}

TEST(UnixSocketWire, RoundTripOfSeveralFramesOnOneConnection)
{
    std::string big(1 << 20, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<char>('A' + i % 26);
    }
    const std::vector<std::string> texts = {"first", "", big, "{\"Task\":\"UserBlockMsg\"}", "last"};

    const std::string name = uniqueName("roundtrip");
    UnixSocket host;
    ASSERT_EQ(host.SetupHost(name.c_str(), 4), 0);
    UnixSocket client;
    ASSERT_EQ(client.ConnectToHost(name.c_str()), 0);
    UnixSocket server;
    ASSERT_EQ(host.AcceptConnection(server, 1000, false), 0);

    StderrCapture err;
    std::vector<bool> sent;
    std::string reply;
    bool replied = false;
    std::thread sender([&] {
        for (const std::string& text : texts) {
            sent.push_back(client.SendString(text));
        }
        // A reply that does not come ends the connection, so that a receiver
        // stuck in a misframed stream gives up instead of waiting for ever.
        replied = client.ReceiveString(reply, 10000);
        client.Disconnect();
    });
    std::vector<std::string> received;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        std::string text;
        if (!server.ReceiveString(text)) {
            break;
        }
        received.push_back(text);
    }
    const bool answered = server.SendString("done");
    sender.join();
    EXPECT_EQ(err.finish(), "");
    EXPECT_EQ(sent, std::vector<bool>(texts.size(), true));
    ASSERT_EQ(received.size(), texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_TRUE(received[i] == texts[i]) << "frame " << i << " differs";
    }
    EXPECT_TRUE(answered);
    EXPECT_TRUE(replied);
    EXPECT_EQ(reply, "done");
}

TEST(UnixSocketAddress, NamesUseTheFullLengthAbstractForm)
{
    enum class End { Library, RawFull, RawShort };
    struct Case {
        const char* label;
        End listener;
        std::string listenName;
        End client;
        std::string connectName;
        bool reached;
    };
    const std::string n = uniqueName("address");
    // Names whose first 107 bytes agree, and two that differ in byte 107.
    const std::string p107 = n + std::string(107 - n.size(), 'L');
    const std::string p106 = n + std::string(106 - n.size(), 'M');
    const std::vector<Case> cases = {
        {"library to library", End::Library, n + "/a", End::Library, n + "/a", true},
        {"library client, full-length raw listener", End::RawFull, n + "/b", End::Library, n + "/b", true},
        {"library client, short-length raw listener", End::RawShort, n + "/c", End::Library, n + "/c", false},
        {"full-length raw client, library listener", End::Library, n + "/d", End::RawFull, n + "/d", true},
        {"short-length raw client, library listener", End::Library, n + "/e", End::RawShort, n + "/e", false},
        {"other name", End::Library, n + "/f", End::Library, n + "/g", false},
        {"names cut after 107 bytes", End::Library, p107 + "A", End::Library, p107 + "BBBB", true},
        {"long name cut to an existing 107-byte name", End::RawFull, p107, End::Library, p107 + "tail", true},
        {"exactly 107 bytes against a longer name", End::Library, p107 + "0123456789", End::RawFull, p107, true},
        {"names differing in byte 107", End::Library, p106 + "A", End::Library, p106 + "B", false},
    };
    ASSERT_EQ(p107.size(), 107u);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        UnixSocket libraryListener;
        Fd rawListenerFd;
        if (c.listener == End::Library) {
            ASSERT_EQ(libraryListener.SetupHost(c.listenName.c_str(), 4), 0);
        } else {
            rawListenerFd = rawListener(c.listenName,
                                        c.listener == End::RawFull ? c_fullLength : shortLength(c.listenName));
            ASSERT_TRUE(rawListenerFd.valid());
        }

        LogRecorder::clear();
        UnixSocket libraryClient;
        Fd rawClientFd;
        bool connected = false;
        if (c.client == End::Library) {
            connected = libraryClient.ConnectToHost(c.connectName.c_str()) == 0;
            EXPECT_TRUE(libraryClient.IsConnected());
            EXPECT_EQ(LogRecorder::lines(),
                      c.reached ? Lines{} : Lines{errorLine(c_file, "ConnectToHost", "connect() error ;")});
        } else {
            rawClientFd = rawClient(c.connectName,
                                    c.client == End::RawFull ? c_fullLength : shortLength(c.connectName));
            connected = rawClientFd.valid();
        }
        EXPECT_EQ(connected, c.reached);

        // The connection, if any, waits on this very listener.
        if (c.listener == End::Library) {
            UnixSocket accepted;
            EXPECT_EQ(libraryListener.AcceptConnection(accepted, 0, true), c.reached ? 0 : -1);
        } else {
            EXPECT_EQ(rawAccept(rawListenerFd.get(), 0).valid(), c.reached);
        }
    }
}

TEST(UnixSocketConnect, NobodyListening)
{
    const std::string name = uniqueName("nobody");
    UnixSocket socket;
    LogRecorder::clear();
    StderrCapture err;
    EXPECT_EQ(socket.ConnectToHost(name.c_str()), -1);
    EXPECT_EQ(LogRecorder::lines(), Lines{errorLine(c_file, "ConnectToHost", "connect() error ;")});
    // The descriptor stays open until the caller lets it go.
    EXPECT_TRUE(socket.IsConnected());
    EXPECT_EQ(socket.Disconnect(), 0);
    EXPECT_FALSE(socket.IsConnected());
    EXPECT_EQ(socket.Disconnect(), 0);
    EXPECT_EQ(err.finish(), "");
    EXPECT_EQ(LogRecorder::lines(), Lines{errorLine(c_file, "ConnectToHost", "connect() error ;")});
}

TEST(UnixSocketFailures, SystemCallFailuresAreLoggedWhereTheyHappen)
{
    struct Outcome {
        int result;
        bool holdsDescriptor;  // the object the operation worked on
    };
    struct Case {
        const char* label;
        std::function<Outcome()> run;
        Outcome expected;
        std::string line;
    };
    const std::string inUse = uniqueName("failures");
    UnixSocket first;
    ASSERT_EQ(first.SetupHost(inUse.c_str(), 4), 0);

    const std::vector<Case> cases = {
        {"bind to a name in use",
         [&] {
             UnixSocket s;
             const int rc = s.SetupHost(inUse.c_str(), 4);
             return Outcome{rc, s.IsConnected()};
         },
         {-1, true}, errorLine(c_file, "Bind", "bind() error ;")},
        {"bind without a descriptor",
         [&] {
             UnixSocket s;
             s.SetupSocket(uniqueName("failures").c_str());
             const int rc = s.Bind();
             return Outcome{rc, s.IsConnected()};
         },
         {-1, false}, errorLine(c_file, "Bind", "bind() error ;")},
        {"listen on an unbound socket",
         [&] {
             UnixSocket s;
             EXPECT_EQ(s.CreateSocketDescriptor(), 0);
             const int rc = s.Listen(4);
             return Outcome{rc, s.IsConnected()};
         },
         {-1, true}, errorLine(c_file, "Listen", "listen() error ;")},
        {"accept on a socket that does not listen",
         [&] {
             UnixSocket s;
             EXPECT_EQ(s.CreateSocketDescriptor(), 0);
             UnixSocket client;
             const int rc = s.AcceptConnection(client);
             return Outcome{rc, client.IsConnected()};
         },
         {-1, false}, errorLine(c_file, "AcceptConnection", "accept() error; ")},
        {"non-blocking mode without a descriptor",
         [&] {
             UnixSocket s;
             const int rc = s.SetNonBlocking();
             return Outcome{rc, s.IsConnected()};
         },
         {-1, false}, errorLine(c_file, "SetNonBlocking", "fcntl() error ;")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogRecorder::clear();
        StderrCapture err;
        const Outcome got = c.run();
        EXPECT_EQ(err.finish(), "");
        EXPECT_EQ(got.result, c.expected.result);
        EXPECT_EQ(got.holdsDescriptor, c.expected.holdsDescriptor);
        EXPECT_EQ(LogRecorder::lines(), Lines{c.line});
    }
}

// Restores the descriptor limit on every way out.
class DescriptorLimit {
public:
    DescriptorLimit() { m_ok = getrlimit(RLIMIT_NOFILE, &m_saved) == 0; }
    ~DescriptorLimit()
    {
        if (m_ok) {
            setrlimit(RLIMIT_NOFILE, &m_saved);
        }
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    bool ok() const { return m_ok; }
    rlim_t hard() const { return m_saved.rlim_max; }
    rlim_t soft() const { return m_saved.rlim_cur; }
    bool setSoft(rlim_t value)
    {
        struct rlimit limit = m_saved;
        limit.rlim_cur = value;
        return setrlimit(RLIMIT_NOFILE, &limit) == 0;
    }

private:
    struct rlimit m_saved = {};
    bool m_ok = false;
};

TEST(UnixSocketFailures, SocketCreationFailureGoesToStandardError)
{
    const std::string name = uniqueName("nosocket");
    UnixSocket host;
    ASSERT_EQ(host.SetupHost(name.c_str(), 4), 0);

    UnixSocket created;
    UnixSocket client;
    UnixSocket server;
    int results[3] = {0, 0, 0};
    LogRecorder::clear();
    StderrCapture err;
    {
        DescriptorLimit limit;
        ASSERT_TRUE(limit.ok());
        // The lowest free descriptor becomes the limit: no new one can be made.
        Fd probe(open("/dev/null", O_RDONLY));
        ASSERT_TRUE(probe.valid());
        const int lowestFree = probe.get();
        probe.reset();
        ASSERT_TRUE(limit.setSoft(static_cast<rlim_t>(lowestFree)));
        results[0] = created.CreateSocketDescriptor();
        results[1] = client.ConnectToHost(name.c_str());
        results[2] = server.SetupHost(uniqueName("nosocket").c_str(), 4);
    }
    EXPECT_EQ(err.finish(), "socket() error ;\nsocket() error ;\nsocket() error ;\n");
    EXPECT_EQ(LogRecorder::lines(), Lines{});
    EXPECT_EQ(results[0], -1);
    EXPECT_EQ(results[1], -1);
    EXPECT_EQ(results[2], -1);
    EXPECT_FALSE(created.IsConnected());
    EXPECT_FALSE(client.IsConnected());
    EXPECT_FALSE(server.IsConnected());
    // Nothing reached the listener.
    UnixSocket accepted;
    EXPECT_EQ(host.AcceptConnection(accepted, 0, true), -1);
}

TEST(UnixSocketAccept, AcceptWithTimeout)
{
    struct Case {
        const char* label;
        unsigned int timeoutMs;
        bool silent;
        bool clientWaiting;
        int result;
        Lines lines;
        long long minMs;
        long long maxMs;
    };
    const auto timedOut = [](const char* ms) {
        return Lines{errorLine(c_file, "AcceptConnection", std::string("timed out after ") + ms + " msec;")};
    };
    const std::vector<Case> cases = {
        {"silent timeout", 50, true, false, -1, {}, 45, 900},
        {"reported timeout", 50, false, false, -1, timedOut("50"), 45, 900},
        {"timeout 0 polls", 0, false, false, -1, timedOut("0"), 0, 100},
        {"timeout 0 polls silently", 0, true, false, -1, {}, 0, 100},
        {"whole seconds and milliseconds", 1100, false, false, -1, timedOut("1100"), 1050, 1800},
        {"client waiting", 1000, false, true, 0, {}, 0, 500},
        {"client waiting, timeout 0", 0, false, true, 0, {}, 0, 100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const std::string name = uniqueName("accept");
        UnixSocket host;
        ASSERT_EQ(host.SetupHost(name.c_str(), 4), 0);
        Fd peer;
        if (c.clientWaiting) {
            peer = rawClient(name, c_fullLength);
            ASSERT_TRUE(peer.valid());
        }
        UnixSocket client;
        LogRecorder::clear();
        int result = 0;
        const long long ms = millisecondsOf([&] { result = host.AcceptConnection(client, c.timeoutMs, c.silent); });
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(client.IsConnected(), c.result == 0);
        EXPECT_EQ(LogRecorder::lines(), c.lines);
        EXPECT_GE(ms, c.minMs);
        EXPECT_LE(ms, c.maxMs);
        if (c.result == 0) {
            // The accepted object talks to the waiting peer.
            EXPECT_TRUE(client.SendString("hi"));
            EXPECT_EQ(client.Disconnect(), 0);
            EXPECT_EQ(readAll(peer.get()), frameOf("hi"));
        }
    }
}

TEST(UnixSocketReadiness, WaitWithoutDescriptorSleepsOneSecond)
{
    struct Case {
        const char* label;
        std::function<bool(const UnixSocket&)> wait;
    };
    const std::vector<Case> cases = {
        {"reading, timeout 0", [](const UnixSocket& s) { return s.IsReadyForReading(0); }},
        {"writing, timeout 10", [](const UnixSocket& s) { return s.IsReadyForWriting(10); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const UnixSocket socket;
        bool ready = true;
        const long long ms = millisecondsOf([&] { ready = c.wait(socket); });
        EXPECT_FALSE(ready);
        EXPECT_GE(ms, 950);
        EXPECT_LE(ms, 3000);
    }
}

TEST(UnixSocketReadiness, ConnectedSocket)
{
    Connection c;
    ASSERT_NO_FATAL_FAILURE(connectRawClient(c, "ready"));
    StderrCapture err;

    bool ready = false;
    EXPECT_LE(millisecondsOf([&] { ready = c.server.IsReadyForWriting(1000); }), 500);
    EXPECT_TRUE(ready);

    // Nothing sent yet: the wait runs out.
    long long ms = millisecondsOf([&] { ready = c.server.IsReadyForReading(60); });
    EXPECT_FALSE(ready);
    EXPECT_GE(ms, 55);
    EXPECT_LE(ms, 900);
    EXPECT_FALSE(c.server.IsReadyForReading(0));
    std::string text = "untouched";
    ms = millisecondsOf([&] { ready = c.server.ReceiveString(text, 60); });
    EXPECT_FALSE(ready);
    EXPECT_GE(ms, 55);
    EXPECT_EQ(text, "untouched");
    EXPECT_TRUE(c.server.IsConnected());

    writeAll(c.client.get(), frameOf("data"));
    EXPECT_TRUE(c.server.IsReadyForReading(0));
    EXPECT_TRUE(c.server.ReceiveString(text, 1000));
    EXPECT_EQ(text, "data");

    // A closed peer makes the socket readable; the receive then fails.
    c.client.reset();
    EXPECT_TRUE(c.server.IsReadyForReading(1000));
    EXPECT_FALSE(c.server.ReceiveString(text, 1000));
    EXPECT_EQ(text, "data");
    EXPECT_EQ(err.finish(), "peer is shutdown;\n");
}

TEST(UnixSocketFlags, SetNonBlockingLeavesOnlyNonBlock)
{
    const std::string name = uniqueName("flags");
    Fd listener = rawListener(name, c_fullLength);
    ASSERT_TRUE(listener.valid());
    UnixSocket socket;
    ASSERT_EQ(socket.ConnectToHost(name.c_str()), 0);
    Fd peer = rawAccept(listener.get(), 1000);
    ASSERT_TRUE(peer.valid());
    const int fd = onlyDescriptorOf(name, Role::Client);
    ASSERT_GE(fd, 0);
    // A status flag set beforehand must not survive.
    ASSERT_EQ(fcntl(fd, F_SETFL, O_APPEND), 0);
    ASSERT_EQ(fcntl(fd, F_GETFL) & ~O_ACCMODE, O_APPEND);

    LogRecorder::clear();
    EXPECT_EQ(socket.SetNonBlocking(), 0);
    EXPECT_EQ(LogRecorder::lines(), Lines{});
    EXPECT_EQ(fcntl(fd, F_GETFL) & ~O_ACCMODE, O_NONBLOCK);

    // With nothing to read, a receive now fails at once instead of waiting.
    StderrCapture err;
    std::string text;
    bool received = true;
    EXPECT_LE(millisecondsOf([&] { received = socket.ReceiveString(text); }), 500);
    EXPECT_FALSE(received);
    EXPECT_EQ(err.finish(), "recv() error ;\n");
    EXPECT_FALSE(socket.IsConnected());
}

TEST(UnixSocketSend, PeerGoneFailsWithoutSignal)
{
    // SIGPIPE keeps its default action here: a raised one ends the program.
    struct Case {
        const char* label;
        std::function<bool(UnixSocket&)> send;
    };
    const unsigned char bytes[3] = {1, 2, 3};
    const std::vector<Case> cases = {
        {"string", [](UnixSocket& s) { return s.SendString("report"); }},
        {"raw bytes", [&](UnixSocket& s) { return s.SendData(bytes, sizeof(bytes)); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const std::string name = uniqueName("send");
        Fd listener = rawListener(name, c_fullLength);
        ASSERT_TRUE(listener.valid());
        UnixSocket socket;
        ASSERT_EQ(socket.ConnectToHost(name.c_str()), 0);
        const int fd = onlyDescriptorOf(name, Role::Client);
        Fd peer = rawAccept(listener.get(), 1000);
        ASSERT_TRUE(peer.valid());
        peer.reset();

        LogRecorder::clear();
        StderrCapture err;
        EXPECT_FALSE(c.send(socket));
        EXPECT_FALSE(socket.IsConnected());
        EXPECT_FALSE(descriptorOpen(fd));
        // A later send fails at once and is reported again.
        EXPECT_FALSE(c.send(socket));
        EXPECT_EQ(err.finish(), "send() error ;\nsend() error ;\n");
        EXPECT_EQ(LogRecorder::lines(), Lines{});
    }
}

TEST(UnixSocketDescriptor, ReleasedOnEveryWayOut)
{
    struct Case {
        const char* label;
        std::function<int(std::unique_ptr<UnixSocket>&, int fd)> release;
        int result;
    };
    const std::vector<Case> cases = {
        {"Disconnect", [](std::unique_ptr<UnixSocket>& s, int) { return s->Disconnect(); }, 0},
        {"destruction",
         [](std::unique_ptr<UnixSocket>& s, int) {
             s.reset();
             return 0;
         },
         0},
        {"closed behind its back",
         [](std::unique_ptr<UnixSocket>& s, int fd) {
             close(fd);
             return s->Disconnect();
         },
         -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const std::string name = uniqueName("release");
        auto socket = std::make_unique<UnixSocket>();
        ASSERT_EQ(socket->SetupHost(name.c_str(), 4), 0);
        const int fd = onlyDescriptorOf(name, Role::Listening);
        ASSERT_GE(fd, 0);
        LogRecorder::clear();
        StderrCapture err;
        EXPECT_EQ(c.release(socket, fd), c.result);
        EXPECT_FALSE(descriptorOpen(fd));
        if (socket) {
            EXPECT_FALSE(socket->IsConnected());
            EXPECT_EQ(socket->Disconnect(), 0);
        }
        EXPECT_EQ(err.finish(), "");
        EXPECT_EQ(LogRecorder::lines(), Lines{});
        // The name is free again.
        UnixSocket again;
        EXPECT_EQ(again.SetupHost(name.c_str(), 4), 0);
    }
}

// Fills every free descriptor below `floor`, so that new ones land above it.
class DescriptorFiller {
public:
    explicit DescriptorFiller(int floor)
    {
        Fd base(open("/dev/null", O_RDONLY));
        if (!base.valid()) {
            return;
        }
        for (;;) {
            Fd next(fcntl(base.get(), F_DUPFD, 0));
            if (!next.valid()) {
                return;
            }
            const bool done = next.get() >= floor;
            m_fds.push_back(std::move(next));
            if (done) {
                break;
            }
        }
        m_fds.push_back(std::move(base));
        m_ok = true;
    }
    bool ok() const { return m_ok; }

private:
    std::vector<Fd> m_fds;
    bool m_ok = false;
};

TEST(UnixSocketReadiness, DescriptorsAboveTheSelectLimit)
{
    const int floor = FD_SETSIZE + 100;
    DescriptorLimit limit;
    ASSERT_TRUE(limit.ok());
    if (limit.soft() < static_cast<rlim_t>(floor) * 2) {
        if (limit.hard() < static_cast<rlim_t>(floor) * 2) {
            GTEST_SKIP() << "descriptor limit too low";
        }
        ASSERT_TRUE(limit.setSoft(static_cast<rlim_t>(floor) * 2));
    }
    DescriptorFiller filler(floor);
    ASSERT_TRUE(filler.ok());

    const std::string name = uniqueName("high");
    UnixSocket host;
    ASSERT_EQ(host.SetupHost(name.c_str(), 4), 0);
    EXPECT_GE(onlyDescriptorOf(name, Role::Listening), FD_SETSIZE);

    // Nothing waiting: the accept times out after its time.
    UnixSocket server;
    LogRecorder::clear();
    int result = 0;
    long long ms = millisecondsOf([&] { result = host.AcceptConnection(server, 60, false); });
    EXPECT_EQ(result, -1);
    EXPECT_GE(ms, 55);
    EXPECT_LE(ms, 900);
    EXPECT_EQ(LogRecorder::lines(), Lines{errorLine(c_file, "AcceptConnection", "timed out after 60 msec;")});

    Fd client = rawClient(name, c_fullLength);
    ASSERT_TRUE(client.valid());
    ASSERT_EQ(host.AcceptConnection(server, 1000, false), 0);
    const int serverFd = onlyDescriptorOf(name, Role::Accepted);
    EXPECT_GE(serverFd, FD_SETSIZE);

    bool ready = false;
    EXPECT_TRUE(server.IsReadyForWriting(0));
    ms = millisecondsOf([&] { ready = server.IsReadyForReading(60); });
    EXPECT_FALSE(ready);
    EXPECT_GE(ms, 55);
    EXPECT_LE(ms, 900);

    writeAll(client.get(), frameOf("above the limit"));
    std::string text;
    EXPECT_TRUE(server.IsReadyForReading(1000));
    EXPECT_TRUE(server.ReceiveString(text, 1000));
    EXPECT_EQ(text, "above the limit");
    EXPECT_TRUE(server.SendString("back"));
    std::string back(9, '\0');
    EXPECT_EQ(recv(client.get(), &back[0], back.size(), MSG_WAITALL), 9);
    EXPECT_EQ(back, frameOf("back"));

    StderrCapture err;
    client.reset();
    EXPECT_TRUE(server.IsReadyForReading(1000));
    EXPECT_FALSE(server.ReceiveString(text, 1000));
    EXPECT_EQ(err.finish(), "peer is shutdown;\n");
    EXPECT_FALSE(descriptorOpen(serverFd));
}

}  // namespace
