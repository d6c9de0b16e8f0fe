// UnixSocket: the framed channel over abstract-namespace stream sockets,
// driven through libkZOLUser with real sockets. The peers are plain sockets
// of the test, so the framing and the address form are checked against the
// system rather than against the class itself. What a report puts on the wire
// is checked by the report tests.
#include "UnixSocket.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include "daemon.h"

using namespace kzol_test;

namespace {

const char* const c_file = "UnixSocket.cpp";

std::string uniqueName()
{
    static unsigned counter = 0;
    return "kzol-test/" + std::to_string(getpid()) + "/" + std::to_string(++counter);
}

// The library's descriptors are private; the next one it opens is the lowest free.
int lowestFree()
{
    return UniqueFd(open("/dev/null", O_RDONLY)).get();
}

// Connects `socket` to a peer of the test and answers the peer; `fd` gets the library's end.
UniqueFd peerOf(UnixSocket& socket, int* fd = nullptr)
{
    const std::string name = uniqueName();
    const UniqueFd listener = abstractSocket(name, true);
    if (fd != nullptr) {
        *fd = lowestFree();
    }
    return UniqueFd(socket.ConnectToHost(name.c_str()) == 0 ? accept(listener.get(), nullptr, nullptr) : -1);
}

// The peer's side of a stream: `wire`, then the end of its sending.
void feed(int fd, const std::string& wire)
{
    ASSERT_EQ(send(fd, wire.data(), wire.size(), 0), static_cast<ssize_t>(wire.size()));
    ASSERT_EQ(shutdown(fd, SHUT_WR), 0);
}

// Runs `f` and answers its result, expecting it to take minMs to maxMs.
template <typename F> auto timed(long long minMs, long long maxMs, F&& f)
{
    const auto start = std::chrono::steady_clock::now();
    const auto result = f();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(ms.count(), minMs) << "ms";
    EXPECT_LE(ms.count(), maxMs) << "ms";
    return result;
}

}  // namespace

// One failing operation on a fresh object: whether the object then still
// holds a descriptor, the platform log line and standard error.
TEST(UnixSocket, Failures)
{
    const std::string inUse = uniqueName();
    UnixSocket first;
    ASSERT_EQ(first.SetupHost(inUse.c_str(), 4), 0);
    const auto sendAlone = [](UnixSocket& s) { return s.CreateSocketDescriptor() == 0 && s.SendString("a"); };
    // Non-blocking mode replaces a status flag set before; with nothing to
    // read a receive then fails at once.
    const auto receiveNow = [](UnixSocket& s) {
        int fd = -1;
        const UniqueFd peer = peerOf(s, &fd);
        std::string text;
        return fcntl(fd, F_SETFL, O_APPEND) == 0 && s.SetNonBlocking() == 0 &&
               (fcntl(fd, F_GETFL) & ~O_ACCMODE) == O_NONBLOCK && s.ReceiveString(text);
    };
    const auto acceptAlone = [](UnixSocket& s) {
        UnixSocket c;
        return s.AcceptConnection(c) == 0 || c.IsConnected();
    };
    const auto listenConnected = [](UnixSocket& s) { return peerOf(s) && s.Listen(4) == 0; };
    struct Case {
        const char* label;
        std::function<bool(UnixSocket&)> act;
        bool connected;
        std::string line, error;
    };
    const std::vector<Case> cases = {
        {"send without a peer", sendAlone, false, "", "send() error ;\n"},
        {"non-blocking receive", receiveNow, false, "", "recv() error ;\n"},
        {"bind to a name in use", [&](UnixSocket& s) { return s.SetupHost(inUse.c_str(), 4) == 0; }, true,
         errorLine(c_file, "Bind", "bind() error ;"), ""},
        {"non-blocking mode without a descriptor", [](UnixSocket& s) { return s.SetNonBlocking() == 0; }, false,
         errorLine(c_file, "SetNonBlocking", "fcntl() error ;"), ""},
        {"accept without listening", acceptAlone, false, errorLine(c_file, "AcceptConnection", "accept() error; "), ""},
        {"listen on a connected socket", listenConnected, true, errorLine(c_file, "Listen", "listen() error ;"), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        clearLog();
        StderrCapture err;
        UnixSocket s;
        EXPECT_FALSE(c.act(s));
        EXPECT_EQ(s.IsConnected(), c.connected);
        EXPECT_EQ(err.finish(), c.error);
        EXPECT_EQ(loggedLines(), c.line.empty() ? Lines{} : Lines{c.line});
    }
}

// The peer writes `wire` and shuts its side; `texts` arrive, then a receive
// fails, writing `error`, closing the connection and leaving the text alone.
TEST(UnixSocket, ReceiveStringReadsFramesAndClosesOnABadOne)
{
    struct Case {
        const char* label;
        std::string wire;
        Lines texts;
        std::string error;
    };
    const std::string eof = "peer is shutdown;\n";
    const std::vector<Case> cases = {
        {"frames in a row", frame("abc") + frame("") + frame("de"), {"abc", "", "de"}, eof},
        {"last byte is not zero", prefix(3) + "abcd" + "tail", {}, "frame not terminated ;\n"},
        {"length 2^31 - 1", prefix(0x7FFFFFFFu) + frame("abc"), {}, "frame too long ;\n"},
        {"length 2^31 - 2 is still read", prefix(0x7FFFFFFEu) + "abc", {}, eof},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        UnixSocket socket;
        const UniqueFd peer = peerOf(socket);
        ASSERT_NO_FATAL_FAILURE(feed(peer.get(), c.wire));
        StderrCapture err;
        Lines texts;
        for (std::string text; texts.size() < c.texts.size() && socket.ReceiveString(text);) {
            texts.push_back(text);
        }
        std::string text = "unchanged";
        EXPECT_FALSE(socket.ReceiveString(text));
        EXPECT_FALSE(socket.IsConnected());
        EXPECT_EQ(texts, c.texts);
        EXPECT_EQ(err.finish(), c.error);
        EXPECT_EQ(text, "unchanged");
    }
}

// Accepts and waits on descriptors below and above FD_SETSIZE (which a select
// set cannot hold), and without a descriptor; a long name is cut.
TEST(UnixSocket, Waits)
{
    EXPECT_FALSE(timed(950, 3000, [] { return UnixSocket().IsReadyForWriting(10); }));  // sleeps a second
    rlimit saved = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    for (int floor : {0, FD_SETSIZE + 100}) {
        SCOPED_TRACE(floor);
        const rlimit raised = {std::max<rlim_t>(saved.rlim_cur, 2 * FD_SETSIZE), saved.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
        std::vector<UniqueFd> filler;
        while (lowestFree() < floor) {
            filler.emplace_back(open("/dev/null", O_RDONLY));
        }
        const std::string name = uniqueName() + std::string(120, 'n');  // cut at 107 bytes
        UnixSocket host, socket;
        ASSERT_EQ(host.SetupHost(name.c_str(), 4), 0);
        struct Timeout {
            unsigned int ms;
            bool silent;
            long long minMs, maxMs;
        };
        for (const Timeout& t : {Timeout{50, true, 45, 900}, {1100, false, 1050, 1800}}) {
            clearLog();
            EXPECT_EQ(timed(t.minMs, t.maxMs, [&] { return host.AcceptConnection(socket, t.ms, t.silent); }), -1);
            const std::string line = "timed out after " + std::to_string(t.ms) + " msec;";
            EXPECT_EQ(loggedLines(), t.silent ? Lines{} : Lines{errorLine(c_file, "AcceptConnection", line)});
        }
        // The listener takes the full-length address of the name's first 107 bytes.
        const UniqueFd peer = abstractSocket(name.substr(0, 107), false);
        ASSERT_EQ(timed(0, 500, [&] { return host.AcceptConnection(socket, 1000, false); }), 0);
        EXPECT_LT(abstractSocket(name.substr(0, 106), false).get(), 0);
        EXPECT_TRUE(timed(0, 500, [&] { return socket.IsReadyForWriting(1000); }));
        std::string text;
        ASSERT_NO_FATAL_FAILURE(feed(peer.get(), frame("data")));
        EXPECT_TRUE(socket.ReceiveString(text, 1000));
        EXPECT_EQ(text, "data");
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}
