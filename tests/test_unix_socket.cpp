// UnixSocket: the framed channel over abstract-namespace stream sockets,
// driven through libkZOLUser with real sockets. The peers that check the wire
// are plain sockets of the test, so the framing and the address form are
// checked against the system rather than against the class itself.
#include "UnixSocket.h"
#include "test_support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using kzol_test::errorLine;
using kzol_test::LogRecorder;
using kzol_test::StderrCapture;
using Lines = std::vector<std::string>;
const char* const c_file = "UnixSocket.cpp";

// A descriptor of the test's own, closed when it goes.
struct Fd {
    int fd;
    explicit Fd(int f = -1) : fd(f) {}
    Fd(Fd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept { std::swap(fd, other.fd); return *this; }
    ~Fd() { if (fd >= 0) close(fd); }
};

// Sets the soft descriptor limit (0: leaves it) and restores it on the way out.
struct Limit {
    struct rlimit saved = {};
    explicit Limit(rlim_t soft)
    {
        getrlimit(RLIMIT_NOFILE, &saved);
        const struct rlimit limit = {soft != 0 ? soft : saved.rlim_cur, saved.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~Limit() { setrlimit(RLIMIT_NOFILE, &saved); }
};

std::string uniqueName()
{
    static unsigned counter = 0;
    return "kzol-test/" + std::to_string(getpid()) + "/" + std::to_string(++counter);
}

// The library's descriptors are private; the next one it opens is the lowest free.
int lowestFree()
{
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

// How a test's own end addresses a name: the full 110 bytes the daemon's side
// uses, or the usual short form that stops at the name's end.
enum End { Library, Full, Short };

// A raw listener (non-blocking, so an accept answers at once) or client;
// invalid when bind, listen or connect fails.
Fd raw(const std::string& name, End length, bool listening)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t n = name.size() < 107 ? name.size() : 107;
    std::memcpy(address.sun_path + 1, name.data(), n);
    const socklen_t size = length == Full ? sizeof(address) : offsetof(struct sockaddr_un, sun_path) + 1 + n;
    Fd s(socket(AF_UNIX, SOCK_STREAM | (listening ? SOCK_NONBLOCK : 0), 0));
    const auto* a = reinterpret_cast<const struct sockaddr*>(&address);
    const bool ok = listening ? bind(s.fd, a, size) == 0 && listen(s.fd, 8) == 0 : connect(s.fd, a, size) == 0;
    return ok ? std::move(s) : Fd();
}

// Connects `socket` to a raw peer and answers the peer; `fd` gets the library's end.
Fd peerOf(UnixSocket& socket, int* fd = nullptr)
{
    const std::string name = uniqueName();
    const Fd listener = raw(name, Full, true);
    if (fd != nullptr) {
        *fd = lowestFree();
    }
    return Fd(socket.ConnectToHost(name.c_str()) == 0 ? accept(listener.fd, nullptr, nullptr) : -1);
}

// Every byte up to the end of the stream; gives up after 10 s of silence, so
// that a misframed stream fails a test instead of hanging it.
std::string readAll(int fd)
{
    const struct timeval limit = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::string bytes;
    char buffer[4096];
    for (ssize_t n; (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    return bytes;
}

// The peer's side of a stream: `wire`, then the end of its sending.
void feed(int fd, const std::string& wire)
{
    ASSERT_EQ(send(fd, wire.data(), wire.size(), 0), static_cast<ssize_t>(wire.size()));
    ASSERT_EQ(shutdown(fd, SHUT_WR), 0);
}

// A length prefix in host byte order.
std::string prefix(std::uint32_t length)
{
    return std::string(reinterpret_cast<const char*>(&length), 4);
}

std::string frameOf(const std::string& text)
{
    return prefix(static_cast<std::uint32_t>(text.size())) + text + std::string(1, '\0');
}

// Runs `f` and answers its result, expecting it to take minMs to maxMs.
template <typename F>
auto timed(long long minMs, long long maxMs, F&& f)
{
    const auto start = std::chrono::steady_clock::now();
    const auto result = f();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(ms.count(), minMs);
    EXPECT_LE(ms.count(), maxMs);
    return result;
}

// One operation on a fresh object: whether it succeeds, whether the object
// then holds a descriptor, what a raw peer reads after a Disconnect, the
// platform log line and standard error.
TEST(UnixSocket, Operations)
{
    using Act = std::function<bool(UnixSocket&, Fd& peer)>;
    struct Case { const char* label; Act act; bool ok, connected; std::string wire, line, error; };
    const std::string inUse = uniqueName();
    {
        UnixSocket gone;  // its destruction frees the name
        ASSERT_EQ(gone.SetupHost(inUse.c_str(), 4), 0);
    }
    UnixSocket first;
    ASSERT_EQ(first.SetupHost(inUse.c_str(), 4), 0);
    const auto sending = [](std::string text) -> Act {
        return [text](UnixSocket& s, Fd& peer) { return (peer = peerOf(s)).fd >= 0 && s.SendString(text); };
    };
    const std::vector<Case> cases = {
        // Length prefixes in the byte order of the (little-endian) hosts.
        {"three letters", sending("abc"), true, true, std::string("\x03\x00\x00\x00" "abc\x00", 8), "", ""},
        {"empty text", sending(""), true, true, std::string(5, '\0'), "", ""},
        {"zero byte inside", sending(std::string("a\0b", 3)), true, true,
         std::string("\x03\x00\x00\x00" "a\x00" "b\x00", 8), "", ""},
        {"256 bytes", sending(std::string(256, 'x')), true, true,
         std::string("\x00\x01\x00\x00", 4) + std::string(256, 'x') + '\0', "", ""},
        // SIGPIPE keeps its default action here: a raised one ends the program.
        {"peer gone, sent twice",
         [](UnixSocket& s, Fd&) {
             peerOf(s);
             return s.SendString("a") || s.SendString("b");
         },
         false, false, "", "", "send() error ;\nsend() error ;\n"},
        // Non-blocking mode replaces a status flag set before; with nothing to
        // read a receive then fails at once.
        {"non-blocking receive",
         [](UnixSocket& s, Fd& peer) {
             int fd = -1;
             peer = peerOf(s, &fd);
             std::string text;
             return fcntl(fd, F_SETFL, O_APPEND) == 0 && s.SetNonBlocking() == 0 &&
                    (fcntl(fd, F_GETFL) & ~O_ACCMODE) == O_NONBLOCK && !s.ReceiveString(text);
         },
         true, false, "", "", "recv() error ;\n"},
        {"bind to a name in use", [&](UnixSocket& s, Fd&) { return s.SetupHost(inUse.c_str(), 4) == 0; }, false,
         true, "", errorLine(c_file, "Bind", "bind() error ;"), ""},
        {"listen on an unbound socket",
         [](UnixSocket& s, Fd&) { return s.CreateSocketDescriptor() + s.Listen(4) == 0; }, false, true, "",
         errorLine(c_file, "Listen", "listen() error ;"), ""},
        {"accept on a socket that does not listen",
         [](UnixSocket& s, Fd&) {
             UnixSocket client;
             return s.CreateSocketDescriptor() + s.AcceptConnection(client) == 0 || client.IsConnected();
         },
         false, true, "", errorLine(c_file, "AcceptConnection", "accept() error; "), ""},
        {"non-blocking mode without a descriptor", [](UnixSocket& s, Fd&) { return s.SetNonBlocking() == 0; },
         false, false, "", errorLine(c_file, "SetNonBlocking", "fcntl() error ;"), ""},
        {"no descriptor left",
         [&](UnixSocket& s, Fd&) {
             const Limit limit(static_cast<rlim_t>(lowestFree()));
             UnixSocket host;
             return s.ConnectToHost(inUse.c_str()) == 0 || host.SetupHost(uniqueName().c_str(), 4) == 0;
         },
         false, false, "", "", "socket() error ;\nsocket() error ;\n"},
        {"descriptor closed behind the object's back",
         [](UnixSocket& s, Fd&) {
             const int fd = lowestFree();
             return s.CreateSocketDescriptor() == 0 && close(fd) == 0 && s.Disconnect() == 0;
         },
         false, false, "", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogRecorder::clear();
        StderrCapture err;
        UnixSocket s;
        Fd peer;
        EXPECT_EQ(c.act(s, peer), c.ok);
        EXPECT_EQ(s.IsConnected(), c.connected);
        EXPECT_EQ(err.finish(), c.error);
        EXPECT_EQ(LogRecorder::lines(), c.line.empty() ? Lines{} : Lines{c.line});
        s.Disconnect();
        EXPECT_EQ(peer.fd >= 0 ? readAll(peer.fd) : "", c.wire);
    }
}

TEST(UnixSocket, ReceiveStringReadsFramesAndClosesOnABadOne)
{
    // The peer writes `wire` and shuts its side; `texts` arrive, then a receive
    // fails, writing `error` and leaving `leftOver` unread.
    struct Case { const char* label; std::string wire; std::vector<std::string> texts; std::string error, leftOver; };
    const std::string eof = "peer is shutdown;\n";
    const std::vector<Case> cases = {
        {"frames in a row", frameOf("abc") + frameOf("") + frameOf("de"), {"abc", "", "de"}, eof, ""},
        {"zero byte inside cuts the text", prefix(5) + std::string("ab\0cd\0", 6) + frameOf("next"),
         {"ab", "next"}, eof, ""},
        {"peer closes inside the prefix", std::string("\x02\x00", 2), {}, eof, ""},
        {"peer closes before the terminator", prefix(2) + "ab", {}, eof, ""},
        {"last byte is not zero", prefix(3) + "abcd" + "tail", {}, "frame not terminated ;\n", "tail"},
        {"length 2^31 - 1", prefix(0x7FFFFFFFu) + frameOf("abc"), {}, "frame too long ;\n", frameOf("abc")},
        {"length 2^32 - 1", prefix(0xFFFFFFFFu) + "abc", {}, "frame too long ;\n", "abc"},
        {"length 2^31 - 2 is still read", prefix(0x7FFFFFFEu) + "abc", {}, eof, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        UnixSocket socket;
        int fd = -1;
        const Fd peer = peerOf(socket, &fd);
        ASSERT_NO_FATAL_FAILURE(feed(peer.fd, c.wire));
        const Fd view(dup(fd));  // a second handle shows what is left unread
        LogRecorder::clear();
        StderrCapture err;
        std::vector<std::string> texts;
        for (std::string text; texts.size() < c.texts.size() && socket.ReceiveString(text);) {
            texts.push_back(text);
        }
        EXPECT_EQ(texts, c.texts);
        std::string text = "unchanged";
        EXPECT_FALSE(socket.ReceiveString(text));
        EXPECT_FALSE(socket.IsConnected());
        EXPECT_EQ(err.finish(), c.error);
        EXPECT_EQ(text, "unchanged");
        EXPECT_EQ(readAll(view.fd), c.leftOver);
        EXPECT_EQ(LogRecorder::lines(), Lines{});
    }
}

TEST(UnixSocket, NamesUseTheFullLengthAbstractForm)
{
    struct Case { End listener, client; std::string listenName, connectName; bool reached; };
    const std::string n = uniqueName();
    // Names whose first 107 bytes agree, and two that differ in byte 107.
    const std::string p107 = n + std::string(107 - n.size(), 'L');
    const std::string p106 = n + std::string(106 - n.size(), 'M');
    const std::vector<Case> cases = {
        {Library, Library, n + "/a", n + "/a", true}, {Full, Library, n + "/b", n + "/b", true},
        {Short, Library, n + "/c", n + "/c", false},  {Library, Full, n + "/d", n + "/d", true},
        {Library, Short, n + "/e", n + "/e", false},  {Library, Library, n + "/f", n + "/g", false},
        {Library, Library, p107 + "A", p107 + "BB", true},
        {Full, Library, p107, p107 + "tail", true},
        {Library, Library, p106 + "A", p106 + "B", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases.data());
        UnixSocket libraryListener, libraryClient, accepted;
        const Fd rawListener = c.listener == Library ? Fd() : raw(c.listenName, c.listener, true);
        ASSERT_TRUE(c.listener == Library ? libraryListener.SetupHost(c.listenName.c_str(), 4) == 0
                                          : rawListener.fd >= 0);
        LogRecorder::clear();
        EXPECT_EQ(c.client == Library ? libraryClient.ConnectToHost(c.connectName.c_str()) == 0
                                      : raw(c.connectName, c.client, false).fd >= 0,
                  c.reached);
        // A failed connect keeps its descriptor until the caller lets it go.
        EXPECT_EQ(libraryClient.IsConnected(), c.client == Library);
        const Lines refused = {errorLine(c_file, "ConnectToHost", "connect() error ;")};
        EXPECT_EQ(LogRecorder::lines(), c.client == Library && !c.reached ? refused : Lines{});
        // The connection, if any, waits on this very listener.
        EXPECT_EQ(c.listener == Library ? libraryListener.AcceptConnection(accepted, 0, true) == 0
                                        : Fd(accept(rawListener.fd, nullptr, nullptr)).fd >= 0,
                  c.reached);
    }
}

// Accepts and waits on descriptors below and above FD_SETSIZE (which a select
// set cannot hold), and without a descriptor.
TEST(UnixSocket, Waits)
{
    const UnixSocket none;  // sleeps a second, whatever the timeout
    EXPECT_FALSE(timed(950, 3000, [&] { return none.IsReadyForReading(0); }));
    EXPECT_FALSE(timed(950, 3000, [&] { return none.IsReadyForWriting(10); }));
    for (int floor : {0, FD_SETSIZE + 100}) {
        SCOPED_TRACE(floor);
        const Limit limit(floor != 0 ? static_cast<rlim_t>(floor) * 2 : 0);
        std::vector<Fd> filler;
        while (lowestFree() < floor) {
            filler.emplace_back(open("/dev/null", O_RDONLY));
            ASSERT_GE(filler.back().fd, 0);
        }
        const std::string name = uniqueName();
        UnixSocket host;
        ASSERT_EQ(host.SetupHost(name.c_str(), 4), 0);
        struct Timeout { unsigned int ms; bool silent; long long minMs, maxMs; };
        for (const Timeout& t : {Timeout{0, false, 0, 100}, {50, true, 45, 900}, {1100, false, 1050, 1800}}) {
            SCOPED_TRACE(t.ms);
            LogRecorder::clear();
            UnixSocket client;
            EXPECT_EQ(timed(t.minMs, t.maxMs, [&] { return host.AcceptConnection(client, t.ms, t.silent); }), -1);
            EXPECT_FALSE(client.IsConnected());
            const std::string line = "timed out after " + std::to_string(t.ms) + " msec;";
            EXPECT_EQ(LogRecorder::lines(), t.silent ? Lines{} : Lines{errorLine(c_file, "AcceptConnection", line)});
        }
        const Fd peer = raw(name, Full, false);
        UnixSocket socket;
        ASSERT_EQ(timed(0, 500, [&] { return host.AcceptConnection(socket, 1000, false); }), 0);
        StderrCapture err;
        EXPECT_TRUE(timed(0, 500, [&] { return socket.IsReadyForWriting(1000); }));
        EXPECT_FALSE(timed(55, 900, [&] { return socket.IsReadyForReading(60); }));
        std::string text = "untouched";
        EXPECT_FALSE(timed(55, 900, [&] { return socket.ReceiveString(text, 60); }));
        EXPECT_EQ(text, "untouched");
        EXPECT_TRUE(socket.IsConnected());
        ASSERT_NO_FATAL_FAILURE(feed(peer.fd, frameOf("data")));
        EXPECT_TRUE(socket.ReceiveString(text, 1000));
        EXPECT_EQ(text, "data");
        // A shut peer makes the socket readable; the receive then fails.
        EXPECT_FALSE(socket.ReceiveString(text, 1000));
        EXPECT_FALSE(socket.IsConnected());
        EXPECT_EQ(err.finish(), "peer is shutdown;\n");
    }
}

}  // namespace
