// The kzol verify, listen and report commands, run as programs. The test
// program has a network namespace of its own (inherited by the commands it
// starts), so its listeners hold the daemon's name without meeting a real one.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

using kzol_test::readFile;
using kzol_test::run;
using kzol_test::TempDir;
using kzol_test::writeFile;

namespace {

using Clock = std::chrono::steady_clock;

std::string q(const std::string& s)
{
    return "'" + s + "'";
}

struct Fd {
    int fd = -1;
    explicit Fd(int f = -1) : fd(f) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    void reset()
    {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = -1;
    }
};

// `kzol listen ARGS` in the background: standard output through a pipe,
// standard error into a file. Killed on destruction if still running.
class Listener {
public:
    Listener(const TempDir& dir, const std::string& args) : m_errFile(dir.file("listen" + std::to_string(++s_serial)))
    {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        m_out.fd = fds[0];
        const std::string command = "exec " + q(KZOL_TOOL) + " listen " + args + " </dev/null 2>" + q(m_errFile);
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(fds[1], 1);
            ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(fds[1]);
    }
    ~Listener() { finish(0); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Waits for the "listening" line (false if the listener ended or took too long).
    bool waitListening()
    {
        for (const auto end = Clock::now() + std::chrono::seconds(10); Clock::now() < end;) {
            if (err().find("listening on SfDaemon/UserMsg") != std::string::npos) {
                return true;
            }
            if (m_pid <= 0 || ::waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
                m_pid = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    // The next line of standard output; false at its end or after `ms` milliseconds.
    bool readLine(std::string& line, int ms = 10000)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            const std::size_t at = m_buffer.find('\n');
            if (at != std::string::npos) {
                line = m_buffer.substr(0, at);
                m_buffer.erase(0, at + 1);
                return true;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            struct pollfd p = {m_out.fd, POLLIN, 0};
            if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) {
                return false;
            }
            char chunk[4096];
            const ssize_t n = ::read(m_out.fd, chunk, sizeof(chunk));
            if (n <= 0) {
                return false;
            }
            m_buffer.append(chunk, static_cast<std::size_t>(n));
        }
    }

    void signal(int sig) const { ::kill(m_pid, sig); }

    // The exit status once the listener ends within `ms`; -1 when it had to be killed.
    int finish(int ms)
    {
        const auto end = Clock::now() + std::chrono::milliseconds(ms);
        while (m_pid > 0 && ::waitpid(m_pid, &m_status, WNOHANG) != m_pid) {
            if (Clock::now() >= end) {
                ::kill(m_pid, SIGKILL);
                ::waitpid(m_pid, nullptr, 0);
                m_status = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        m_pid = -1;
        return m_status >= 0 && WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

    std::string err() const { return readFile(m_errFile); }

private:
    static inline int s_serial = 0;
    std::string m_errFile;
    Fd m_out;
    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_buffer;
};

// `kzol ARGS`, bounded in time; standard error is dropped unless `err` is given.
int kzol(const std::string& args, std::string* out = nullptr, const std::string& errFile = "/dev/null")
{
    return run("timeout -s KILL 30 " + q(KZOL_TOOL) + " " + args + " </dev/null 2>" + q(errFile), out);
}

// A raw peer with the channel's full-length abstract address.
int connectRaw()
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::string prefix(std::uint32_t n)
{
    return std::string(reinterpret_cast<const char*>(&n), sizeof(n));
}

std::string frame(const std::string& text)
{
    return prefix(static_cast<std::uint32_t>(text.size())) + text + std::string(1, '\0');
}

// The compact line of a caller's report, its sequence written as SEQ; texts JSON-escaped.
std::string reportLine(int kind, const std::string& caller, const std::string& description,
                       const std::string& fileType, const std::string& path)
{
    return "{\"Action/FileSend\":" + std::to_string(kind) + ",\"Report/Caller\":\"" + caller +
           "\",\"Report/Decription\":\"" + description + "\",\"Report/FileType\":\"" + fileType +
           "\",\"Report/Path\":\"" + path + "\",\"Report/ReportSeq\":\"SEQ\",\"State\":\"ShowNoti\","
           "\"TaskName\":\"UserBlockMsg\"}";
}

// The line with its report sequence (7 to 12 digits) replaced by SEQ.
std::string withoutSeq(const std::string& line)
{
    static const std::regex seq("\"Report/ReportSeq\":\"[0-9]{7,12}\"");
    return std::regex_replace(line, seq, "\"Report/ReportSeq\":\"SEQ\"");
}

const std::string kGoodReport = "report --caller good --file-type SCRIPT --path /no/such.sh --description ok --type 1";
const std::string kGoodLine = reportLine(1, "good", "ok", "SCRIPT", "/no/such.sh");

TEST(KzolReport, ReportsReachTheListener)
{
    TempDir dir;
    writeFile(dir.file("target.sh"), "echo\n");
    ASSERT_EQ(::symlink(dir.file("target.sh").c_str(), dir.file("link.sh").c_str()), 0);
    char canonical[4097];
    ASSERT_NE(::realpath(dir.file("target.sh").c_str(), canonical), nullptr);

    struct Case {
        const char* name;
        std::string args;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases = {
        {"log report, path resolved", "--caller demo --file-type SCRIPT --path " + q(dir.file("link.sh")) +
                                          " --description hello --type 0",
         {reportLine(0, "demo", "hello", "SCRIPT", canonical)}},
        {"file report, missing path kept", "--caller c1 --file-type BIN --path /no/x.sh --description d --type 1",
         {reportLine(1, "c1", "d", "BIN", "/no/x.sh")}},
        {"no kind bit sends nothing", "--caller c4 --type 4", {}},
        {"data report, escaped text", "--caller c2 --description 'say \"hi\" \\ bye' --type 2",
         {reportLine(2, "c2", "say \\\"hi\\\" \\\\ bye", "", "")}},
        {"file then data report", "--caller c3 --path /no/y --type 3",
         {reportLine(1, "c3", "", "", "/no/y"), reportLine(2, "c3", "", "", "/no/y")}},
        {"texts left out", "--type 1", {reportLine(1, "", "", "", "")}},
    };
    std::size_t total = 0;
    for (const auto& c : cases) {
        total += c.lines.size();
    }
    Listener listener(dir, "--json-lines --count " + std::to_string(total));
    ASSERT_TRUE(listener.waitListening()) << listener.err();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(kzol("report " + c.args), 0);
        for (const auto& expected : c.lines) {
            std::string line;
            ASSERT_TRUE(listener.readLine(line)) << listener.err();
            EXPECT_EQ(withoutSeq(line), expected) << line;
        }
    }
    EXPECT_EQ(listener.finish(10000), 0) << listener.err();
    std::string extra;
    EXPECT_FALSE(listener.readLine(extra, 1000)) << extra;
}

TEST(KzolReport, NobodyListening)
{
    const std::vector<std::pair<int, int>> typeAndStatus = {{0, 1}, {1, 1}, {3, 1}, {4, 0}};
    for (const auto& [type, status] : typeAndStatus) {
        EXPECT_EQ(kzol("report --caller x --type " + std::to_string(type)), status) << "type " << type;
    }
    EXPECT_EQ(kzol("report --caller x"), 2);  // --type is required
}

TEST(KzolListen, HostilePeersDoNotStopIt)
{
    struct Case {
        const char* name;
        std::string bytes;
        bool keepOpen;
        std::string expected;  // in the listener's standard error
    };
    const std::string incomplete = "connection ended without a complete frame";
    const std::vector<Case> cases = {
        {"length 0xffffffff", prefix(0xFFFFFFFFu) + "{}", false, incomplete},
        {"length 2^31-1", prefix(0x7FFFFFFFu) + "{}", false, incomplete},
        {"garbage", "GET / HTTP/1.0\r\n\r\n", false, incomplete},
        {"early close", prefix(100) + "{\"Action", false, incomplete},
        {"unterminated frame", prefix(2) + "{}}", false, incomplete},
        {"closes at once", "", false, incomplete},
        {"not JSON", frame("hello {"), false, "frame of 7 bytes is not JSON: hello {"},
        {"control bytes", frame("\x01\x7f{"), false, "frame of 3 bytes is not JSON: \\x01\\x7f{"},
        {"JSON array", frame("[1,2]"), false, "frame of 5 bytes is JSON but not an object: [1,2]"},
        {"deep nesting", frame(std::string(100000, '[')), false, "frame of 100000 bytes is not JSON: [[["},
        {"silent peer", "", true, "peer sent nothing within 300 ms; dropped"},
        {"stalls mid-frame", prefix(50) + "{\"a\"", true, "peer did not complete a frame within 300 ms"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Listener listener(dir, "--json-lines --count 1 --receive-timeout 300");
        ASSERT_TRUE(listener.waitListening()) << listener.err();
        Fd peer(connectRaw());
        ASSERT_GE(peer.fd, 0);
        ASSERT_EQ(::send(peer.fd, c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(c.bytes.size()));
        if (!c.keepOpen) {
            peer.reset();
        }
        EXPECT_EQ(kzol(kGoodReport), 0);
        std::string line;
        ASSERT_TRUE(listener.readLine(line)) << listener.err();
        EXPECT_EQ(withoutSeq(line), kGoodLine);
        EXPECT_EQ(listener.finish(10000), 0);
        EXPECT_NE(listener.err().find("kzol listen: " + c.expected), std::string::npos) << listener.err();
    }
}

TEST(KzolListen, ReadsEveryFrameOfAConnection)
{
    TempDir dir;
    Listener listener(dir, "--json-lines --count 2");
    ASSERT_TRUE(listener.waitListening()) << listener.err();
    const std::string bytes = frame("{\"n\": 1}") + frame("oops") + frame("{ \"n\" : [true, null] }");
    Fd peer(connectRaw());
    ASSERT_EQ(::send(peer.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    for (const char* expected : {"{\"n\":1}", "{\"n\":[true,null]}"}) {
        std::string line;
        ASSERT_TRUE(listener.readLine(line)) << listener.err();
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(listener.finish(10000), 0);
    EXPECT_NE(listener.err().find("frame of 4 bytes is not JSON: oops"), std::string::npos) << listener.err();
}

TEST(KzolListen, HoldsTheNameUntilASignalEndsIt)
{
    struct Case {
        const char* name;
        int signal;
        bool stalledPeer;  // the listener is blocked inside a frame
    };
    const std::vector<Case> cases = {
        {"SIGTERM while idle", SIGTERM, false},
        {"SIGINT while idle", SIGINT, false},
        {"SIGTERM inside a frame", SIGTERM, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Listener listener(dir, "--receive-timeout 60000");
        ASSERT_TRUE(listener.waitListening()) << listener.err();
        Fd peer;
        if (c.stalledPeer) {
            peer.fd = connectRaw();
            const std::string part = prefix(50) + "{";
            ASSERT_EQ(::send(peer.fd, part.data(), part.size(), MSG_NOSIGNAL), static_cast<ssize_t>(part.size()));
        }
        // A second listener cannot take the name meanwhile.
        Listener second(dir, "--once");
        EXPECT_EQ(second.finish(10000), 2);
        EXPECT_NE(second.err().find("kzol: another listener holds SfDaemon/UserMsg\n"), std::string::npos)
            << second.err();
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        listener.signal(c.signal);
        EXPECT_EQ(listener.finish(3000), 0) << listener.err();
        // The name is free again.
        Listener next(dir, "--once");
        EXPECT_TRUE(next.waitListening()) << next.err();
    }
}

std::string base64OfLength(std::uint32_t n)
{
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const unsigned char b[4] = {static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                                static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    const std::uint32_t first = (b[0] << 16) | (b[1] << 8) | b[2];
    std::string out;
    for (int shift = 18; shift >= 0; shift -= 6) {
        out += digits[(first >> shift) & 63];
    }
    out += digits[b[3] >> 2];
    out += digits[(b[3] & 3) << 4];
    return out + "==";
}

// A block built with the openssl command alone: content, "P50", the signature
// as "0x" and lower-case hex, the base64 big-endian text length, ":ZOL".
std::string signedByOpenssl(const TempDir& dir, const std::string& content)
{
    writeFile(dir.file("region"), content + "P50");
    EXPECT_EQ(run("openssl dgst -sha256 -sign " + q(kzol_test::devPrivateKey('5')) + " -out " +
                  q(dir.file("sig")) + " " + q(dir.file("region"))),
              0);
    std::string text = "0x";
    for (const unsigned char byte : readFile(dir.file("sig"))) {
        char hex[3];
        std::snprintf(hex, sizeof(hex), "%02x", byte);
        text += hex;
    }
    EXPECT_EQ(text.size(), 514u);
    return content + "P50" + text + base64OfLength(static_cast<std::uint32_t>(text.size())) + ":ZOL";
}

TEST(KzolVerify, PrintsTheLibrarysResult)
{
    TempDir dir;
    const std::string content = "#!/bin/sh\necho \"signed\"\n";
    const auto signedCopy = [&](const std::string& name, char key, char keyId, const std::string& type) {
        writeFile(dir.file(name), content);
        EXPECT_EQ(kzol("sign --key " + q(kzol_test::devPrivateKey(key)) + " --key-id " + keyId + " --type " + type +
                       " " + q(dir.file(name))),
                  0);
    };
    signedCopy("key5.sh", '5', '5', "P");
    signedCopy("key6.sh", '6', '6', "P");
    signedCopy("wrongkey.sh", '5', '6', "P");
    signedCopy("typeL.sh", '5', '5', "L");
    std::string tampered = readFile(dir.file("key5.sh"));
    tampered[12] ^= 0x20;
    writeFile(dir.file("tampered.sh"), tampered);
    writeFile(dir.file("plain.sh"), content);
    writeFile(dir.file("openssl.sh"), signedByOpenssl(dir, content));

    struct Case {
        std::string file;
        int status;
        std::string out;
        std::string err;  // expected in standard error
    };
    const std::vector<Case> cases = {
        {"key5.sh", 0, "BS_SIGNATURE_CORRECT\n", ""},
        {"key6.sh", 0, "BS_SIGNATURE_CORRECT\n", ""},
        {"openssl.sh", 0, "BS_SIGNATURE_CORRECT\n", ""},
        {"wrongkey.sh", 1, "BS_SIGNATURE_INCORRECT\n", ""},
        {"tampered.sh", 1, "BS_SIGNATURE_INCORRECT\n", ""},
        {"plain.sh", 1, "BS_NOT_SIGNED\n", ""},
        {"typeL.sh", 1, "BS_ERROR\n", ""},
        {"missing.sh", 2, "", "kzol: cannot open " + dir.file("missing.sh")},
        {".", 2, "", "kzol: " + dir.file(".") + " is not a regular file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        std::string out;
        EXPECT_EQ(kzol("verify --caller tester " + q(dir.file(c.file)), &out, dir.file("err")), c.status);
        EXPECT_EQ(out, c.out);
        EXPECT_NE(readFile(dir.file("err")).find(c.err), std::string::npos) << readFile(dir.file("err"));
    }
}

}  // namespace
