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
#include "signing_key.h"
#include "token_uri.h"
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
    bool followLinks = false;
    TokenOptions token;
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

int runCert(const CertOptions& options)
{
    const char keyId = options.keyId[0];
    std::string error;
    if (!checkDeviceId(options.duid, error)) {
        return fail(error);
    }

    // -o may name the stick's directory; the certificate then takes its name.
    // Both are reached through directory descriptors, without following
    // links others could have placed.
    DirectoryEntry destination;
    if (!openEntry(options.output, options.followLinks, destination, error)) {
        return fail(error);
    }
    struct stat st {};
    bool exists = ::fstatat(destination.directory->get(), destination.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && S_ISDIR(st.st_mode)) {
        DirectoryEntry stick;
        if (!openDirectoryEntry(options.output, stick, error)) {
            return fail(error);
        }
        destination = {stick.directory, c_certificateName,
                       options.output + (options.output.back() == '/' ? "" : "/") + c_certificateName};
        exists = ::fstatat(destination.directory->get(), c_certificateName, &st, AT_SYMLINK_NOFOLLOW) == 0;
    }
    if (!exists && errno != ENOENT) {
        return fail("cannot use " + destination.shown + ": " + errnoText(errno));
    }
    if (exists && S_ISLNK(st.st_mode)) {
        return fail(destination.shown + " is a symbolic link; not followed without --follow-links");
    }
    if (exists && !S_ISREG(st.st_mode)) {
        return fail(destination.shown + " is not a regular file");
    }
    if (exists && !options.force) {
        return fail(c_exitNegative, destination.shown + " exists; use --force to overwrite it");
    }
    if (exists && st.st_nlink > 1) {
        return fail(destination.shown + " has " + std::to_string(st.st_nlink) +
                    " hard links; not replaced (remove it first to write a new certificate)");
    }

    SigningKey key;
    if (!key.load(options.key, options.token, error)) {
        return fail(error);
    }
    if (const std::string warning = developmentKeyWarning(key.get()); !warning.empty()) {
        std::cerr << warning << std::endl;
    }

    const std::string header = certificateHeader(options.duid);
    const ByteBuffer content(header.begin(), header.end());
    const ByteBuffer signedData(options.duid.begin(), options.duid.end());
    ByteBuffer certificate;
    if (!composeSignedFileOver(key.get(), content, signedData, c_certificateType, keyId, certificate, error)) {
        return fail(error);
    }

    // Removable storage is often FAT, which has no permission bits.
    AtomicFileWriter file;
    if (!file.begin(destination, c_certificateMode, error, /*modeIsOptional=*/true) ||
        !file.write(certificate, error)) {
        return fail(error);
    }
    if (!blockReadsBack(file.descriptor(), content.size(), c_certificateType, keyId)) {
        return fail("the library does not read the new block back; nothing written");
    }
    if (exists) {
        // The replaced certificate's owner, mode and extended attributes stay.
        const UniqueFd old(::openat(destination.directory->get(), destination.name.c_str(),
                                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat oldStatus {};
        if (!old || ::fstat(old.get(), &oldStatus) != 0) {
            return fail("cannot open " + destination.shown + ": " + errnoText(errno));
        }
        if (!file.keepAttributesOf(old.get(), oldStatus, error)) {
            return fail(error);
        }
    }
    if (!file.commit(exists, error)) {
        return fail(file.destinationExisted() ? c_exitNegative : c_exitError,
                    file.destinationExisted() ? destination.shown + " exists; use --force to overwrite it" : error);
    }

    std::cout << "wrote " << destination.shown << ": disable certificate for device " << options.duid << ", type "
              << c_certificateType << ", key " << keyId << "\n";
    if (destination.name != c_certificateName) {
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
    cmd->add_option("--key", options->key, "RSA-2048 private key: a PEM file or a pkcs11: URI")->required();
    cmd->add_option("--module", options->token.module, "PKCS#11 module for a pkcs11: key without module-path");
    cmd->add_option("--pin-file", options->token.pinFile,
                    "File holding the token's PIN (else pin-value, KZOL_PKCS11_PIN, or asked for on a terminal)");
    cmd->add_option("--pass-file", options->token.passFile,
                    "File whose first line is the passphrase of an encrypted PEM key (else asked for on a terminal)");
    cmd->add_option("--key-id", options->keyId, "Key selector the block names: 5 or 6")
        ->required()
        ->check(CLI::IsMember({"5", "6"}));
    cmd->add_option("--duid", options->duid, "The device's identifier (configuration key db/comss/hwduid)")->required();
    cmd->add_option("-o,--output", options->output,
                    "Certificate file to write; a directory (a stick's root) gets RTZOLOFF.cer in it")
        ->required();
    cmd->add_flag("--force", options->force, "Overwrite an existing certificate file (it keeps its owner and mode)");
    cmd->add_flag("--follow-links", options->followLinks, "Write through a symbolic link at -o instead of refusing it");
    cmd->footer("The signature (RSA PKCS#1 v1.5 over SHA-256, block type P) covers the bytes of the device\n"
                "identifier exactly, without terminator; the text line before the block is not signed.\n"
                "With RTZOLOFF.cer at the root of an attached USB stick, that device runs unsigned scripts.\n"
                "Exit status: 0 written; 1 refused because the file exists (nothing written); 2 usage or\n"
                "I/O error (nothing written).\n");
    // The key's name may be a pkcs11: URI that holds the token's PIN.
    cmd->callback([options, &status]() {
        status = runCert(*options);
        wipe(options->key);
    });
}

}  // namespace kzol
