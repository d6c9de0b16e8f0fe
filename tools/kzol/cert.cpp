// kzol cert: a disable certificate for one device. The file carries a
// signature block (type P) whose signature covers the device identifier's
// bytes, nothing else; the line before the block is for people and is not
// signed. A stick holding it as RTZOLOFF.cer at its root switches the
// signature policy off on that device only.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <iostream>
#include <memory>

#include "atomic_file.h"
#include "commands.h"
#include "common.h"
#include "signature.h"
#include "writer.h"

namespace kzol {

namespace {

constexpr const char* c_certificateName = "RTZOLOFF.cer";
constexpr mode_t c_certificateMode = 0644;
constexpr char c_certificateType = 'P';

struct CertOptions {
    std::string key;
    std::string keyId;
    std::string duid;
    std::string output;
    bool force = false;
};

// What the certificate says to a person who opens it; not signed.
std::string certificateHeader(const std::string& duid)
{
    return "kZOL disable certificate for device " + duid + "\n";
}

// The identifier as the configuration store hands it over: printable text.
bool checkDeviceId(const std::string& duid, std::string& error)
{
    if (duid.empty()) {
        error = "the device identifier is empty";
        return false;
    }
    for (unsigned char c : duid) {
        if (c < 0x20 || c == 0x7F) {
            error = "the device identifier \"" + printable(duid) + "\" holds a control character";
            return false;
        }
    }
    return true;
}

// Writes `bytes` to `destination` through a temporary file in the same
// directory, checks that the library reads the expected block from it, and
// only then gives it the destination's name. Removable storage is often FAT,
// which has neither permission bits nor hard links: a permission change that
// the file system refuses is not an error, and an existing destination is
// detected without link() where link() is not supported.
class CertificateFile {
public:
    ~CertificateFile()
    {
        m_fd.close();
        if (!m_temporary.empty()) {
            ::unlink(m_temporary.c_str());
        }
    }

    bool write(const std::string& destination, const ByteBuffer& bytes, std::string& error)
    {
        m_destination = destination;
        std::string pattern = directoryOf(destination) + "/." + c_certificateName + ".kzol-XXXXXX";
        const int fd = ::mkostemp(&pattern[0], O_CLOEXEC);
        if (fd < 0) {
            error = "cannot create a temporary file in " + directoryOf(destination) + ": " + errnoText(errno);
            return false;
        }
        m_fd.reset(fd);
        m_temporary = pattern;
        (void)::fchmod(fd, c_certificateMode);  // FAT refuses; the file stays readable there anyway
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                error = "cannot write " + m_temporary + ": " + errnoText(errno);
                return false;
            }
            done += static_cast<std::size_t>(n);
        }
        if (::fsync(fd) != 0) {
            error = "cannot flush " + m_temporary + ": " + errnoText(errno);
            return false;
        }
        if (!m_fd.close()) {
            error = "cannot close " + m_temporary + ": " + errnoText(errno);
            return false;
        }
        return true;
    }

    const std::string& temporaryPath() const { return m_temporary; }

    // `existed` tells a refusal because the destination appeared meanwhile.
    bool commit(bool replace, std::string& error, bool& existed)
    {
        existed = false;
        if (replace) {
            if (::rename(m_temporary.c_str(), m_destination.c_str()) != 0) {
                error = "cannot rename " + m_temporary + " to " + m_destination + ": " + errnoText(errno);
                return false;
            }
        } else if (::link(m_temporary.c_str(), m_destination.c_str()) == 0) {
            ::unlink(m_temporary.c_str());
        } else {
            const int err = errno;
            struct stat st {};
            if (err == EEXIST || ::lstat(m_destination.c_str(), &st) == 0) {
                error = m_destination + " exists; use --force to overwrite it";
                existed = true;
                return false;
            }
            if (err != EPERM && err != EOPNOTSUPP && err != ENOSYS && err != EMLINK) {
                error = "cannot create " + m_destination + ": " + errnoText(err);
                return false;
            }
            if (::rename(m_temporary.c_str(), m_destination.c_str()) != 0) {
                error = "cannot create " + m_destination + ": " + errnoText(errno);
                return false;
            }
        }
        m_temporary.clear();
        UniqueFd dir(::open(directoryOf(m_destination).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (dir) {
            ::fsync(dir.get());
        }
        return true;
    }

private:
    std::string m_destination;
    std::string m_temporary;
    UniqueFd m_fd;
};

int runCert(const CertOptions& options)
{
    const char keyId = options.keyId[0];
    std::string error;
    if (!checkDeviceId(options.duid, error)) {
        return fail(error);
    }

    // -o may name the stick's directory; the certificate then takes its name.
    std::string destination = options.output;
    struct stat st {};
    bool exists = ::stat(destination.c_str(), &st) == 0;
    if (exists && S_ISDIR(st.st_mode)) {
        destination += (destination.back() == '/' ? "" : "/") + std::string(c_certificateName);
        exists = ::stat(destination.c_str(), &st) == 0;
    }
    if (!exists && errno != ENOENT) {
        return fail("cannot use " + destination + ": " + errnoText(errno));
    }
    if (exists && S_ISDIR(st.st_mode)) {
        return fail(destination + " is a directory");
    }
    if (exists && !options.force) {
        return fail(c_exitNegative, destination + " exists; use --force to overwrite it");
    }

    EvpPkeyPtr key;
    if (!loadSigningKey(options.key, key, error)) {
        return fail(error);
    }

    const std::string header = certificateHeader(options.duid);
    const ByteBuffer content(header.begin(), header.end());
    const ByteBuffer signedData(options.duid.begin(), options.duid.end());
    ByteBuffer certificate;
    if (!composeSignedFileOver(key.get(), content, signedData, c_certificateType, keyId, certificate, error)) {
        return fail(error);
    }

    CertificateFile file;
    if (!file.write(destination, certificate, error)) {
        return fail(error);
    }
    Signature check;
    _ZolSigMeta meta{};
    if (!check.loadFromFile(file.temporaryPath(), meta) || check.offset() != content.size() + c_metaFieldSize ||
        meta.sigType != c_certificateType || meta.keyId != keyId) {
        return fail("the library does not read the new block back; nothing written");
    }
    bool appeared = false;
    if (!file.commit(exists, error, appeared)) {
        return fail(appeared ? c_exitNegative : c_exitError, error);
    }

    std::cout << "wrote " << destination << ": disable certificate for device " << options.duid << ", type "
              << c_certificateType << ", key " << keyId << "\n";
    const std::size_t slash = destination.find_last_of('/');
    const std::string name = slash == std::string::npos ? destination : destination.substr(slash + 1);
    if (name != c_certificateName) {
        std::cerr << "kzol: note: the library looks for " << c_certificateName
                  << " in the root directory of a USB stick\n";
    }
    return c_exitSuccess;
}

}  // namespace

void addCertCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<CertOptions>();
    CLI::App* cmd = app.add_subcommand("cert", "Make a disable certificate (RTZOLOFF.cer) for one device");
    cmd->add_option("--key", options->key, "RSA-2048 private key, PEM")->required();
    cmd->add_option("--key-id", options->keyId, "Key selector the block names: 5 or 6")
        ->required()
        ->check(CLI::IsMember({"5", "6"}));
    cmd->add_option("--duid", options->duid, "The device's identifier (configuration key db/comss/hwduid)")
        ->required();
    cmd->add_option("-o,--output", options->output,
                    "Certificate file to write; a directory (a stick's root) gets RTZOLOFF.cer in it")
        ->required();
    cmd->add_flag("--force", options->force, "Overwrite an existing certificate file");
    cmd->footer(
        "The signature (RSA PKCS#1 v1.5 over SHA-256, block type P) covers the bytes of the device\n"
        "identifier exactly, without terminator; the text line before the block is not signed.\n"
        "With RTZOLOFF.cer at the root of an attached USB stick, that device runs unsigned scripts.\n"
        "Exit status: 0 written; 1 refused because the file exists (nothing written); 2 usage or\n"
        "I/O error (nothing written).\n");
    cmd->callback([options, &status]() { status = runCert(*options); });
}

}  // namespace kzol
