#include "bench_support.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "public_keys.h"

namespace kzol_bench {

namespace {

const char c_privateKeyPath[] = KZOL_SOURCE_DIR "/keys/dev/private_key_5.pem";
constexpr char c_sigType = 'P';
constexpr char c_keyId = '5';
constexpr char c_metaReserved = '0';

// ---- removal on signals -----------------------------------------------------
// Fixed storage so that the handler only reads memory and calls unlink/rmdir.
constexpr std::size_t c_maxCleanup = 32;
constexpr std::size_t c_maxPath = 4096;
char g_cleanupPaths[c_maxCleanup][c_maxPath];
volatile std::sig_atomic_t g_cleanupCount = 0;  // files first, the directory last

void addCleanupPath(const std::string& path)
{
    if (g_cleanupCount < static_cast<std::sig_atomic_t>(c_maxCleanup) && path.size() < c_maxPath) {
        std::memcpy(g_cleanupPaths[g_cleanupCount], path.c_str(), path.size() + 1);
        g_cleanupCount = g_cleanupCount + 1;
    }
}

void removeCleanupPaths()
{
    // Backwards: the files before the directory that holds them.
    for (std::sig_atomic_t i = g_cleanupCount; i > 0; --i) {
        if (unlink(g_cleanupPaths[i - 1]) != 0) {
            rmdir(g_cleanupPaths[i - 1]);
        }
    }
    g_cleanupCount = 0;
}

extern "C" void onFatalSignal(int signal)
{
    removeCleanupPaths();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void installCleanupHandlers()
{
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, onFatalSignal);
    }
}

// ---- files ------------------------------------------------------------------

std::string tempBase()
{
    struct stat status {};
    if (stat("/dev/shm", &status) == 0 && S_ISDIR(status.st_mode) && access("/dev/shm", W_OK | X_OK) == 0) {
        return "/dev/shm";
    }
    const char* tmpdir = std::getenv("TMPDIR");
    if (tmpdir != nullptr && tmpdir[0] != '\0') {
        return tmpdir;
    }
    return "/tmp";
}

bool writeWhole(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

bool readWhole(const std::string& path, std::string& bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    bytes = text.str();
    return static_cast<bool>(in);
}

std::string opensslErrors()
{
    std::string text;
    while (const unsigned long code = ERR_get_error()) {
        char line[256];
        ERR_error_string_n(code, line, sizeof(line));
        text += text.empty() ? "" : "; ";
        text += line;
    }
    return text;
}

bool loadPrivateKey(EvpPkeyPtr& key, std::string& error)
{
    std::string pem;
    if (!readWhole(c_privateKeyPath, pem)) {
        error = std::string("cannot read ") + c_privateKeyPath;
        return false;
    }
    const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    key.reset(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key || EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) {
        error = std::string(c_privateKeyPath) + ": no RSA private key: " + opensslErrors();
        return false;
    }
    return true;
}

bool sign(EVP_PKEY* key, const std::string& data, std::vector<unsigned char>& raw, std::string& error)
{
    const EvpMdCtxPtr ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX* pkeyCtx = nullptr;  // owned by ctx
    std::size_t length = 0;
    if (!ctx || EVP_DigestSignInit(ctx.get(), &pkeyCtx, EVP_sha256(), nullptr, key) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(pkeyCtx, RSA_PKCS1_PADDING) <= 0 ||
        EVP_DigestSignUpdate(ctx.get(), data.data(), data.size()) != 1 ||
        EVP_DigestSignFinal(ctx.get(), nullptr, &length) != 1) {
        error = "signing failed: " + opensslErrors();
        return false;
    }
    raw.assign(length, 0);
    if (EVP_DigestSignFinal(ctx.get(), raw.data(), &length) != 1) {
        error = "signing failed: " + opensslErrors();
        return false;
    }
    raw.resize(length);
    return true;
}

std::string mpiText(const std::vector<unsigned char>& raw)
{
    static const char digits[] = "0123456789abcdef";
    std::string text = "0x";
    for (unsigned char byte : raw) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

// The 8-character length field: base64 of the text length as 4 big-endian bytes.
std::string lengthField(std::size_t textLength)
{
    const unsigned char be[4] = {static_cast<unsigned char>(textLength >> 24),
                                 static_cast<unsigned char>(textLength >> 16),
                                 static_cast<unsigned char>(textLength >> 8), static_cast<unsigned char>(textLength)};
    unsigned char field[9] = {};
    EVP_EncodeBlock(field, be, sizeof(be));
    return std::string(reinterpret_cast<const char*>(field), 8);
}

// Script-like content: lines of printable text, cut to `size` bytes.
std::string content(std::size_t size)
{
    std::string text;
    text.reserve(size);
    for (unsigned line = 0; text.size() < size; ++line) {
        text += "echo \"line " + std::to_string(line) + " of a shell script used as benchmark input\"\n";
    }
    text.resize(size);
    return text;
}

std::vector<std::pair<std::string, RegisterFn>>& families()
{
    static std::vector<std::pair<std::string, RegisterFn>> list;
    return list;
}

}  // namespace

const std::vector<std::size_t>& contentSizes()
{
    static const std::vector<std::size_t> sizes = {4u << 10, 64u << 10, 1u << 20, 16u << 20};
    return sizes;
}

Workspace::~Workspace()
{
    for (const SignedFile& file : m_files) {
        unlink(file.path.c_str());
    }
    if (!m_directory.empty()) {
        rmdir(m_directory.c_str());
    }
    for (auto path = m_extraPaths.rbegin(); path != m_extraPaths.rend(); ++path) {
        if (unlink(path->c_str()) != 0) {
            rmdir(path->c_str());
        }
    }
    g_cleanupCount = 0;
}

bool Workspace::createArea(std::string& error)
{
    // Listed before it is made: removed even when making it fails half-way.
    const auto made = [&](const std::string& path, const std::string* bytes) {
        m_extraPaths.push_back(path);
        addCleanupPath(path);
        if (bytes == nullptr ? mkdir(path.c_str(), 0700) != 0 : !writeWhole(path, *bytes)) {
            error = "cannot make " + path + ": " + std::strerror(errno);
            return false;
        }
        return true;
    };
    std::string pattern = "/tmp/kzol-bench-area-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        error = "cannot make a directory like " + pattern + ": " + std::strerror(errno);
        return false;
    }
    m_areaDirectory = pattern;
    m_extraPaths.push_back(pattern);
    addCleanupPath(pattern);
    const std::string& good = m_files.front().bytes;
    std::string tampered = good;
    tampered[0] ^= 1;
    m_televisionProfile = m_areaDirectory + "/television";
    m_otherDeviceProfile = m_areaDirectory + "/other-device";
    const std::string modules = "sdp_drv 16384 0 - Live 0x0\nnet_drv 65536 1 - Live 0x0\n",
                      television = "micom 40960 2 - Live 0x0\n" + modules, uid = "5000 5000\n", zone = "0 0\n";
    return made(m_areaDirectory + "/signed.sh", &good) && made(m_areaDirectory + "/tampered.sh", &tampered) &&
           made(m_televisionProfile, nullptr) && made(m_televisionProfile + "/modules", &television) &&
           made(m_televisionProfile + "/uid", &uid) && made(m_televisionProfile + "/zone", &zone) &&
           made(m_televisionProfile + "/usb", nullptr) && made(m_otherDeviceProfile, nullptr) &&
           made(m_otherDeviceProfile + "/modules", &modules);
}

bool Workspace::create(std::string& error)
{
    m_publicKeyPem = kzol_keys::c_publicKey5;
    if (!loadPrivateKey(m_privateKey, error)) {
        return false;
    }
    std::string pattern = tempBase() + "/kzol-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        error = "cannot make a directory like " + pattern + ": " + std::strerror(errno);
        return false;
    }
    m_directory = pattern;
    installCleanupHandlers();
    addCleanupPath(m_directory);

    for (std::size_t size : contentSizes()) {
        SignedFile file;
        file.contentSize = size;
        file.path = m_directory + "/signed-" + std::to_string(size) + ".sh";
        std::string region = content(size);
        region += c_sigType;
        region += c_keyId;
        region += c_metaReserved;
        if (!sign(m_privateKey.get(), region, file.rawSignature, error)) {
            return false;
        }
        file.offset = region.size();
        file.mpiText = mpiText(file.rawSignature);
        std::string bytes = std::move(region);
        bytes += file.mpiText;
        bytes += lengthField(file.mpiText.size());
        bytes += ":ZOL";
        addCleanupPath(file.path);
        m_files.push_back(file);  // listed before writing: removed even if the write fails half-way
        if (!writeWhole(file.path, bytes)) {
            error = "cannot write " + file.path;
            return false;
        }
        // Read back: the bytes for the in-memory benchmarks, and the file in the page cache.
        if (!readWhole(file.path, m_files.back().bytes) || m_files.back().bytes != bytes) {
            error = "cannot read back " + file.path;
            return false;
        }
    }
    return createArea(error);
}

const SignedFile* Workspace::file(std::size_t contentSize) const
{
    for (const SignedFile& file : m_files) {
        if (file.contentSize == contentSize) {
            return &file;
        }
    }
    return nullptr;
}

Family::Family(const char* name, RegisterFn registerFn)
{
    families().emplace_back(name, std::move(registerFn));
}

void registerAllFamilies(const Workspace& workspace)
{
    for (const auto& family : families()) {
        family.second(workspace);
    }
}

bool decodeMpiText(const char* text, std::size_t length, std::vector<unsigned char>& raw)
{
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    if (length < 4 || (length & 1) != 0 || text[0] != '0' || text[1] != 'x') {
        return false;
    }
    raw.resize((length - 2) / 2);
    for (std::size_t i = 0; i < raw.size(); ++i) {
        const int high = nibble(text[2 + 2 * i]);
        const int low = nibble(text[3 + 2 * i]);
        if (high < 0 || low < 0) {
            return false;
        }
        raw[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

}  // namespace kzol_bench
