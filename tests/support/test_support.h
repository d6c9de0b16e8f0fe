// Shared helpers of the test suites: a recorder that stands in for the
// platform log, capture of standard error, temporary directories and files.
#pragma once

#include <string>
#include <vector>

namespace kzol_test {

// Every __dlog_print call of the library lands here (the test program defines
// __dlog_print, which takes precedence over the platform's library). Lines are
// rendered "<P>/<tag>: <message>" with the source line of the message prefix
// replaced by "N", so that tests compare whole lines without depending on line
// numbers.
struct LogRecorder {
    static void clear();
    static std::vector<std::string> lines();
};

// Expected platform-log lines, as LogRecorder renders them; `text` is the
// message after the prefix, without the priority's colour.
std::string errorLine(const std::string& file, const std::string& function, const std::string& text);
std::string infoLine(const std::string& file, const std::string& function, const std::string& text);
std::string warnLine(const std::string& file, const std::string& function, const std::string& text);

// Redirects standard error (descriptor 2) to a file for its lifetime.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture() { finish(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    // Ends the capture and answers what was written.
    std::string finish();

private:
    int m_saved = -1, m_file = -1;  // m_saved is -1 once the capture ended
};

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

void writeFile(const std::string& path, const std::string& bytes);
std::string readFile(const std::string& path);

// Runs a shell command; answers its exit status and fills `output` with its
// standard output.
int run(const std::string& command, std::string* output = nullptr);

// Signed files, made independently of the library's own encoders: the MPI
// text and length field are written here, the signature by the openssl
// command (RSA PKCS#1 v1.5 over SHA-256).
std::string opensslSign(const std::string& data, const std::string& privateKey);
std::string mpiText(const std::string& raw);          // "0x" + lower-case hex, no NUL
std::string lengthField(std::size_t textLength);      // 8 base64 characters, big-endian length
std::string blockAfter(const std::string& signedRegion, const std::string& text);  // region + text + field + ":ZOL"
// content + 3-byte metadata (e.g. "P50"), signed with `privateKey`.
std::string signedFile(const std::string& content, const std::string& meta, const std::string& privateKey);
// A disable certificate: a readable line, then a block whose signature is
// over the bytes of `deviceId`.
std::string certificate(const std::string& deviceId, const std::string& meta, const std::string& privateKey);

// The development keys of the source tree.
std::string devPrivateKey(char selector);
std::string devPublicKey(char selector);

}  // namespace kzol_test
