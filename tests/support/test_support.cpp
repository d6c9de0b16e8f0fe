#include "test_support.h"

#include <dlog.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace {

std::mutex g_logMutex;
std::vector<std::string>& recorded()
{
    static std::vector<std::string> lines;
    return lines;
}

char priorityLetter(int prio)
{
    switch (prio) {
    case DLOG_INFO: return 'I';
    case DLOG_WARN: return 'W';
    case DLOG_ERROR: return 'E';
    default: return '?';
    }
}

std::string normalise(const std::string& message)
{
    static const std::regex prefix(R"(^([^ :]+: [A-Za-z0-9_~]+)\(\d+\) > )");
    return std::regex_replace(message, prefix, "$1(N) > ", std::regex_constants::format_first_only);
}

std::string line(char prio, const std::string& file, const std::string& function,
                 const char* colour, const std::string& text)
{
    return std::string(1, prio) + "/kzoluser: " + file + ": " + function + "(N) > " + colour + text + "\033[0m";
}

}  // namespace

extern "C" int __dlog_print(log_id_t, int prio, const char* tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string message(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    std::vsnprintf(message.data(), message.size() + 1, fmt, copy);
    va_end(copy);
    std::string rendered = std::string(1, priorityLetter(prio)) + "/" + (tag ? tag : "") + ": " + normalise(message);
    std::lock_guard<std::mutex> lock(g_logMutex);
    recorded().push_back(std::move(rendered));
    return n;
}

namespace kzol_test {

void LogRecorder::clear()
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    recorded().clear();
}

std::vector<std::string> LogRecorder::lines()
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    return recorded();
}

std::string errorLine(const std::string& file, const std::string& function, const std::string& text)
{
    return line('E', file, function, "\033[31m", text);
}

std::string infoLine(const std::string& file, const std::string& function, const std::string& text)
{
    return line('I', file, function, "\033[36m", text);
}

std::string warnLine(const std::string& file, const std::string& function, const std::string& text)
{
    return line('W', file, function, "\033[33m", text);
}

StderrCapture::StderrCapture() : m_saved(-1), m_file(-1), m_done(false)
{
    std::fflush(stderr);
    char name[] = "/tmp/kzol-stderr-XXXXXX";
    m_file = mkstemp(name);
    if (m_file < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    unlink(name);
    m_saved = dup(STDERR_FILENO);
    dup2(m_file, STDERR_FILENO);
}

std::string StderrCapture::finish()
{
    if (m_done) {
        return {};
    }
    m_done = true;
    std::fflush(stderr);
    dup2(m_saved, STDERR_FILENO);
    close(m_saved);
    std::string text;
    char buffer[4096];
    lseek(m_file, 0, SEEK_SET);
    ssize_t n;
    while ((n = read(m_file, buffer, sizeof(buffer))) > 0) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    close(m_file);
    return text;
}

StderrCapture::~StderrCapture()
{
    finish();
}

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/kzol-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir()
{
    // Directories made unreadable by a test are reopened so they can go.
    run("chmod -R u+rwx '" + m_path + "' 2>/dev/null; rm -rf '" + m_path + "'");
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

int run(const std::string& command, std::string* output)
{
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    std::string text;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        text.append(buffer, n);
    }
    const int status = pclose(pipe);
    if (output != nullptr) {
        *output = text;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string opensslSign(const std::string& data, const std::string& privateKey)
{
    TempDir dir;
    writeFile(dir.file("data"), data);
    const int rc = run("openssl dgst -sha256 -sign '" + privateKey + "' -out '" + dir.file("sig") + "' '" +
                       dir.file("data") + "'");
    if (rc != 0) {
        throw std::runtime_error("openssl could not sign with " + privateKey);
    }
    return readFile(dir.file("sig"));
}

std::string mpiText(const std::string& raw)
{
    static const char digits[] = "0123456789abcdef";
    std::string text = "0x";
    for (unsigned char byte : raw) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string lengthField(std::size_t textLength)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::uint32_t n = static_cast<std::uint32_t>(textLength);
    // Four bytes: one whole group of three, then one byte and "==".
    const std::uint32_t group = n >> 8;
    std::string field;
    field += alphabet[(group >> 18) & 63];
    field += alphabet[(group >> 12) & 63];
    field += alphabet[(group >> 6) & 63];
    field += alphabet[group & 63];
    field += alphabet[(n & 0xFF) >> 2];
    field += alphabet[(n & 0x03) << 4];
    field += "==";
    return field;
}

std::string blockAfter(const std::string& signedRegion, const std::string& text)
{
    return signedRegion + text + lengthField(text.size()) + ":ZOL";
}

std::string signedFile(const std::string& content, const std::string& meta, const std::string& privateKey)
{
    const std::string region = content + meta;
    return blockAfter(region, mpiText(opensslSign(region, privateKey)));
}

std::string certificate(const std::string& deviceId, const std::string& meta, const std::string& privateKey)
{
    return blockAfter("kZOL disable certificate\n" + meta, mpiText(opensslSign(deviceId, privateKey)));
}

std::string sourceDir()
{
    return KZOL_SOURCE_DIR;
}

std::string devKeyDir()
{
    return sourceDir() + "/keys/dev";
}

std::string devPrivateKey(char selector)
{
    return devKeyDir() + "/private_key_" + selector + ".pem";
}

std::string devPublicKey(char selector)
{
    return devKeyDir() + "/public_key_" + selector + ".pem";
}

}  // namespace kzol_test
