// kzol verify: the library's own verdict on files, with its built-in keys or
// with a deployment's public keys.
#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <iostream>
#include <memory>

#include "bs_context.h"
#include "commands.h"
#include "common.h"
#include "keyset.h"

namespace kzol {

namespace {

struct VerifyOptions {
    std::vector<std::string> files;
    std::string caller = "kzol";
    std::string keyDirectory;
    std::vector<std::string> publicKeys;
};

// The library answers BS_NOT_SIGNED for a file it cannot open; a missing or
// unreadable file is an I/O error here, not a verdict.
int requireReadable(const std::string& path)
{
    if (const int status = requireRegularFile(path); status != c_exitSuccess) {
        return status;
    }
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return fail("cannot read " + path + ": " + errnoText(errno));
    }
    return c_exitSuccess;
}

int runVerify(const VerifyOptions& options)
{
    KeySet keys;
    const bool givenKeys = !options.keyDirectory.empty() || !options.publicKeys.empty();
    if (givenKeys) {
        std::string error;
        if (!loadKeySet(options.keyDirectory, options.publicKeys, keys, error)) {
            return fail(error);
        }
    }
    // One file prints the bare result, as scripts have always read it; more
    // print the file's name before each.
    const bool named = options.files.size() > 1;
    int status = c_exitSuccess;
    for (const std::string& path : options.files) {
        if (requireReadable(path) != c_exitSuccess) {
            status = c_exitError;
            continue;
        }
        BSContext context;
        const Result result = givenKeys ? context.verifyFileWithKeys(path, keys.pem5, keys.pem6, options.caller.c_str())
                                        : context.verifyFile(path, options.caller.c_str());
        const char* name = resultName(result);
        std::cout << (named ? path + ": " : std::string()) << (name != nullptr ? name : "BS_ERROR") << "\n";
        if (result != BS_SIGNATURE_CORRECT && status == c_exitSuccess) {
            status = c_exitNegative;
        }
    }
    std::cout.flush();
    return status;
}

}  // namespace

void addVerifyCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* cmd = app.add_subcommand("verify", "Check files' signatures with the library's own verification");
    cmd->add_option("FILE", options->files, "Files to check")->required();
    cmd->add_option("--caller", options->caller, "Caller name the library logs with the outcome (default: kzol)");
    cmd->add_option("--keys", options->keyDirectory,
                    "Verify with DIR/public_key_5.pem and DIR/public_key_6.pem (as 'kzol keygen' writes them) "
                    "instead of the built-in keys");
    cmd->add_option("--pubkey", options->publicKeys, "5=FILE or 6=FILE: verify that selector with this public key")
        ->allow_extra_args(false);
    cmd->footer("Prints the library's result for each file (after \"FILE: \" when there are several):\n"
                "BS_SIGNATURE_CORRECT, BS_SIGNATURE_INCORRECT, BS_NOT_SIGNED or BS_ERROR. With --keys or\n"
                "--pubkey the library's verification runs with those keys in place of the built-in ones;\n"
                "a selector without a given key answers BS_ERROR.\n"
                "Exit status: 0 every file BS_SIGNATURE_CORRECT; 1 any other result; 2 a FILE missing,\n"
                "not a regular file or unreadable, unreadable keys, or bad usage.\n");
    cmd->callback([options, &status]() { status = runVerify(*options); });
}

}  // namespace kzol
