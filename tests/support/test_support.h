// Shared helpers of the test suites: a recorder that stands in for the
// platform log, capture of standard error, temporary files, signed fixtures
// and the kzol tool.
#pragma once

// The suites' common headers come with it, so that each suite includes only
// what is particular to it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kzol_test {

using Lines = std::vector<std::string>;

// Every __dlog_print call of the library is recorded (the test program defines
// __dlog_print, which takes precedence over the platform's library). Lines are
// rendered "<P>/<tag>: <message>" with the source line of the message prefix
// replaced by "N", so that tests compare whole lines without depending on line
// numbers.
void clearLog();
Lines loggedLines();

// Expected platform-log lines, as they are recorded; `text` is the
// message after the prefix, without the priority's colour.
std::string errorLine(const std::string& file, const std::string& function, const std::string& text);
std::string infoLine(const std::string& file, const std::string& function, const std::string& text);
std::string warnLine(const std::string& file, const std::string& function, const std::string& text);
// The line of a signature check by `caller` with `outcome` ("Correct Signed",
// "Not Signed", ...; "DUID ..." for a disable certificate).
std::string checkLine(const std::string& outcome, const std::string& path, const std::string& caller = "loader");

// Captures standard error (descriptor 2) until finish() or the end of the scope.
class StderrCapture {
public:
    StderrCapture() { testing::internal::CaptureStderr(); }
    ~StderrCapture() { finish(); }
    // Ends the capture and answers what was written.
    std::string finish() { return std::exchange(m_capturing, false) ? testing::internal::GetCapturedStderr() : ""; }

private:
    bool m_capturing = true;
};

// A fresh directory under `base` ($TMPDIR or /tmp by default), removed with
// its contents.
class TempDir {
public:
    explicit TempDir(const char* base = std::getenv("TMPDIR"));
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Writes a file, making the directories it needs.
void writeFile(const std::string& path, const std::string& bytes);
void appendFile(const std::string& path, const std::string& bytes);  // at the end, however large the file
std::string readFile(const std::string& path);

// Runs a shell command; answers its exit status and fills `output` with its
// standard output.
int run(const std::string& command, std::string* output = nullptr);
std::string shq(const std::string& text);  // quoted for the shell

// Signed files, made independently of the library's own encoders: the MPI
// text and length field are written here, the signature by the openssl
// command (RSA PKCS#1 v1.5 over SHA-256).
std::string opensslSign(const std::string& data, const std::string& privateKey);
std::string mpiText(const std::string& raw);      // "0x" + lower-case hex, no NUL
std::string lengthField(std::size_t textLength);  // 8 base64 characters, big-endian length
std::string blockAfter(const std::string& signedRegion, const std::string& text);  // region + text + field + ":ZOL"
// content + 3-byte metadata (e.g. "P50"), signed with `privateKey`.
std::string signedFile(const std::string& content, const std::string& meta, const std::string& privateKey);
// A disable certificate: a readable line, then a block whose signature is
// over the bytes of `deviceId`.
std::string certificate(const std::string& deviceId, const std::string& meta, const std::string& privateKey);

// The development keys of the source tree.
std::string devPrivateKey(char selector);
std::string devPublicKey(char selector);

#ifdef KZOL_TOOL
// `kzol ARGS` run by the shell in `dir` without terminal input: its exit
// status; `out` gets its standard output, and its standard error with `errors`.
inline int kzol(const std::string& args, std::string* out = nullptr, const std::string& dir = ".", bool errors = false)
{
    const std::string command = shq(KZOL_TOOL) + " " + args + " </dev/null 2>" + (errors ? "&1" : "/dev/null");
    return run("cd " + shq(dir) + " && " + command, out);
}
#endif

using Contents = std::map<std::string, std::string>;
// Name and contents of every entry of a directory ("-" for one that is not a
// regular file), temporary files included.
inline Contents snapshot(const std::string& dir)
{
    Contents files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        files[entry.path().filename().string()] = entry.is_regular_file() ? readFile(entry.path().string()) : "-";
    }
    return files;
}

// Sets an environment variable (nullopt: unsets it) until the end of the
// scope, then puts back what it held before.
struct EnvVar {
    using Value = std::optional<std::string>;
    const char* name;
    Value old;
    EnvVar(const char* n, const Value& value) : name(n), old(getenv(n) ? Value(getenv(n)) : Value()) { set(value); }
    ~EnvVar() { set(old); }
    void set(const Value& value) const { value ? setenv(name, value->c_str(), 1) : unsetenv(name); }
};

}  // namespace kzol_test
