// kzol sign: appends a signature block to a file, or replaces the one it has.
#include <sys/stat.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>

#include "atomic_file.h"
#include "commands.h"
#include "common.h"
#include "signature.h"
#include "writer.h"

namespace kzol {

namespace {

struct SignOptions {
    std::string key;
    std::string keyId;
    std::string type = "P";
    std::string file;
    std::string output;
    bool force = false;
};

int runSign(const SignOptions& options)
{
    const char type = options.type[0];
    const char keyId = options.keyId[0];
    const std::string& file = options.file;

    struct stat input {};
    if (const int status = requireRegularFile(file, &input); status != c_exitSuccess) {
        return status;
    }
    if (static_cast<std::uint64_t>(input.st_size) >= std::numeric_limits<std::uint32_t>::max()) {
        return fail(file + " is too large: block positions are 32-bit");
    }

    std::string error;
    EvpPkeyPtr key;
    if (!loadSigningKey(options.key, key, error)) {
        return fail(error);
    }

    ByteBuffer content;
    if (!readFileBytes(file, content, error)) {
        return fail(error);
    }
    if (content.empty()) {
        return fail(file + " is empty: a signed file needs at least one byte of content");
    }

    // A file the library already reads a block from is signed only once; with
    // --force its block goes and the content before the old metadata field is
    // signed afresh.
    Signature existing;
    _ZolSigMeta existingMeta{};
    bool replacing = false;
    if (existing.loadFromFile(file, existingMeta)) {
        if (!options.force) {
            return fail(c_exitNegative, file + " already carries a signature block (type " +
                                            printable(existingMeta.sigType) + ", key " +
                                            printable(existingMeta.keyId) +
                                            "); use --force to replace it");
        }
        if (existing.offset() > content.size()) {
            return fail(file + " changed while it was read");
        }
        content.resize(existing.offset() - c_metaFieldSize);
        replacing = true;
    }

    // Where the result goes. In place, a symbolic link is followed so that the
    // file it names is replaced, not the link.
    std::string destination;
    bool destinationExists = true;
    if (options.output.empty()) {
        destination = resolvedPath(file);
    } else {
        struct stat out {};
        if (::stat(options.output.c_str(), &out) == 0) {
            if (S_ISDIR(out.st_mode)) {
                return fail(options.output + " is a directory");
            }
            const bool sameFile = out.st_dev == input.st_dev && out.st_ino == input.st_ino;
            if (!sameFile && !options.force) {
                return fail(c_exitNegative, options.output + " exists; use --force to overwrite it");
            }
            destination = resolvedPath(options.output);
        } else if (errno == ENOENT) {
            destination = options.output;
            destinationExists = false;
        } else {
            return fail("cannot use " + options.output + ": " + errnoText(errno));
        }
    }

    ByteBuffer signedFile;
    if (!composeSignedFile(key.get(), content, type, keyId, signedFile, error)) {
        return fail(error);
    }

    AtomicFileWriter writer;
    if (!writer.begin(destination, input.st_mode & 07777, error) || !writer.write(signedFile, error)) {
        return fail(error);
    }
    // The library's reader must find exactly the new block before the file
    // takes the destination's name.
    if (!blockReadsBack(writer.temporaryPath(), content.size(), type, keyId)) {
        return fail("the library does not read the new block back; " + destination + " left as it was");
    }
    if (!writer.commit(destinationExists, error)) {
        return fail(error);
    }

    std::cout << (replacing ? "re-signed " : "signed ") << file;
    if (!options.output.empty()) {
        std::cout << " into " << options.output;
    }
    std::cout << ": type " << type << ", key " << keyId << ", signed region " << content.size() + c_metaFieldSize << " bytes\n";
    return c_exitSuccess;
}

}  // namespace

void addSignCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<SignOptions>();
    CLI::App* cmd = app.add_subcommand("sign", "Append a signature block to a file");
    cmd->add_option("FILE", options->file, "File to sign (replaced atomically unless -o is given)")->required();
    cmd->add_option("--key", options->key, "RSA-2048 private key, PEM")->required();
    cmd->add_option("--key-id", options->keyId, "Key selector the block names: 5 or 6")
        ->required()
        ->check(CLI::IsMember({"5", "6"}));
    cmd->add_option("--type", options->type, "Signature type character: P (default) or L")
        ->check(CLI::IsMember({"P", "L"}));
    cmd->add_option("-o,--output", options->output, "Write the signed file here instead of replacing FILE");
    cmd->add_flag("--force", options->force, "Replace an existing block; overwrite an existing -o file");
    cmd->footer(
        "The block signs the file's bytes and the metadata (type, key selector) with RSA PKCS#1 v1.5\n"
        "over SHA-256. The result keeps FILE's permission bits.\n"
        "Exit status: 0 signed; 1 refused because FILE already carries a block or the -o file\n"
        "exists (nothing written); 2 usage or I/O error (nothing written).\n");
    cmd->callback([options, &status]() { status = runSign(*options); });
}

}  // namespace kzol
