#include "test_support.h"
#include "handles.h"

#include <dlog.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <mutex>

namespace {

std::mutex g_logMutex;
kzol_test::Lines g_logLines;  // the library logs only when a test calls it

std::string line(char prio, const std::string& file, const std::string& function, const char* colour,
                 const std::string& text)
{
    return std::string(1, prio) + "/kzoluser: " + file + ": " + function + "(N) > " + colour + text + "\033[0m";
}

// The source line of the prefix "FILE: FUNCTION(LINE) > " becomes "N".
std::string withoutLine(std::string message)
{
    const auto open = message.find('('), close = message.find(") > ");
    if (open < close && close != std::string::npos) {
        message.replace(open + 1, close - open - 1, "N");
    }
    return message;
}

}  // namespace

extern "C" int __dlog_print(log_id_t, int prio, const char* tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* text = nullptr;
    const int n = vasprintf(&text, fmt, args);
    va_end(args);
    const MallocPtr<char> owned(text);
    const char letter = prio == DLOG_INFO ? 'I' : prio == DLOG_WARN ? 'W' : prio == DLOG_ERROR ? 'E' : '?';
    std::string rendered = std::string(1, letter) + "/" + (tag ? tag : "") + ": " + withoutLine(n >= 0 ? text : "");
    const std::lock_guard<std::mutex> lock(g_logMutex);
    g_logLines.push_back(std::move(rendered));
    return n;
}

namespace kzol_test {

void clearLog()
{
    const std::lock_guard<std::mutex> lock(g_logMutex);
    g_logLines.clear();
}

Lines loggedLines()
{
    const std::lock_guard<std::mutex> lock(g_logMutex);
    return g_logLines;
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

std::string checkLine(const std::string& outcome, const std::string& path, const std::string& caller)
{
    const char* function = outcome.rfind("DUID", 0) == 0 ? "verifyFileWithDeviceId" : "verifyFile";
    const bool correct = outcome.find("Correct") != std::string::npos;
    const std::string text = "[zol][" + caller + (correct ? "] : \033[1;32m" : "]! : \033[1;31m") + outcome +
                             " [ file_path : " + path + " ]\033[0m";
    return correct ? infoLine("bs_context.cpp", function, text) : errorLine("bs_context.cpp", function, text);
}

TempDir::TempDir(const char* base)
{
    m_path = std::string(base && *base ? base : "/tmp") + "/kzol-test-XXXXXX";
    EXPECT_NE(mkdtemp(m_path.data()), nullptr) << m_path;
}

TempDir::~TempDir()
{
    // Directories made unreadable by a test are reopened so they can go.
    run("chmod -R u+rwx " + shq(m_path) + " 2>/dev/null; rm -rf " + shq(m_path));
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    EXPECT_TRUE(out.write(bytes.data(), std::streamsize(bytes.size()))) << "cannot write " << path;
}

void appendFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::app);
    EXPECT_TRUE(out.write(bytes.data(), std::streamsize(bytes.size()))) << "cannot append to " << path;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int run(const std::string& command, std::string* output)
{
    std::string scratch, &text = output != nullptr ? *output : scratch;
    text.clear();
    FILE* pipe = popen(command.c_str(), "r");
    for (int c; pipe != nullptr && (c = std::fgetc(pipe)) != EOF;) {
        text += static_cast<char>(c);
    }
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string shq(const std::string& text)
{
    return "'" + text + "'";
}

std::string opensslSign(const std::string& data, const std::string& privateKey)
{
    TempDir dir;
    writeFile(dir.file("data"), data);
    std::string signature;
    EXPECT_EQ(run("openssl dgst -sha256 -sign " + shq(privateKey) + " " + shq(dir.file("data")), &signature), 0);
    return signature;
}

std::string mpiText(const std::string& raw)
{
    std::string text = "0x";
    for (unsigned char byte : raw) {
        text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 0x0F]};
    }
    return text;
}

std::string lengthField(std::size_t textLength)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto n = static_cast<std::uint32_t>(textLength);
    // Four bytes: one whole group of three (24 bits, four characters), then
    // one byte (two characters, the second padded with zero bits) and "==".
    std::string field;
    for (int shift = 26; shift >= -4; shift -= 6) {
        field += alphabet[(shift >= 0 ? n >> shift : n << -shift) & 63];
    }
    return field + "==";
}

std::string blockAfter(const std::string& signedRegion, const std::string& text)
{
    return signedRegion + text + lengthField(text.size()) + ":ZOL";
}

std::string signedFile(const std::string& content, const std::string& meta, const std::string& privateKey)
{
    return blockAfter(content + meta, mpiText(opensslSign(content + meta, privateKey)));
}

std::string certificate(const std::string& deviceId, const std::string& meta, const std::string& privateKey)
{
    return blockAfter("kZOL disable certificate\n" + meta, mpiText(opensslSign(deviceId, privateKey)));
}

std::string devPrivateKey(char selector)
{
    return std::string(KZOL_SOURCE_DIR) + "/keys/dev/private_key_" + selector + ".pem";
}

std::string devPublicKey(char selector)
{
    return std::string(KZOL_SOURCE_DIR) + "/keys/dev/public_key_" + selector + ".pem";
}

}  // namespace kzol_test
