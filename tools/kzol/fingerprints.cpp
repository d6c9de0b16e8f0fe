// kzol keys: which public keys this build verifies with, by fingerprint, and
// whether a deployment's keys are the same.
#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

#include "commands.h"
#include "common.h"
#include "keyset.h"
#include "signing_key.h"

namespace kzol {

namespace {

struct KeysOptions {
    std::string directory;
    std::vector<std::string> overrides;
};

int runKeys(const KeysOptions& options)
{
    const KeySet builtIn = builtInKeys();
    bool development = false;
    for (const char selector : {'5', '6'}) {
        std::string hex, error;
        if (!fingerprintOfPem(builtIn.pem(selector), hex, error)) {
            return fail("built-in key " + std::string(1, selector) + ": " + error);
        }
        std::cout << "built-in key " << selector << ": SHA256:" << hex << "\n";
        development = development || isDevelopmentKey(selector, builtIn.pem(selector));
    }
    if (development) {
        std::cout << "WARNING: this build verifies with the DEVELOPMENT keys of the source tree (keys/dev);"
                     " their private halves are public, anyone can sign for it: never ship it\n";
    }
    if (options.directory.empty() && options.overrides.empty()) {
        return c_exitSuccess;
    }
    KeySet given;
    std::string error;
    if (!loadKeySet(options.directory, options.overrides, given, error)) {
        return fail(error);
    }
    bool allMatch = true;
    for (const char selector : {'5', '6'}) {
        if (given.pem(selector).empty()) {
            std::cout << "given key " << selector << ": none\n";
            allMatch = false;
            continue;
        }
        std::string hex, builtInHex;
        if (!fingerprintOfPem(given.pem(selector), hex, error) ||
            !fingerprintOfPem(builtIn.pem(selector), builtInHex, error)) {
            return fail(error);
        }
        const bool same = hex == builtInHex;
        allMatch = allMatch && same;
        const char devSelector = developmentKeyOfFingerprint(hex);
        std::cout << "given key " << selector << ": SHA256:" << hex
                  << (same ? " (matches the built-in key)" : " (DIFFERS from the built-in key)")
                  << (devSelector != 0 ? std::string(", the DEVELOPMENT key ") + devSelector + " of keys/dev" : "")
                  << "\n";
    }
    return allMatch ? c_exitSuccess : c_exitNegative;
}

}  // namespace

void addKeysCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<KeysOptions>();
    CLI::App* cmd = app.add_subcommand("keys", "Fingerprints of the built-in public keys, and of given ones");
    cmd->add_option("--keys", options->directory, "Directory of public_key_5.pem and public_key_6.pem to compare");
    cmd->add_option("--pubkey", options->overrides, "5=FILE or 6=FILE: one public key to compare")
        ->allow_extra_args(false);
    cmd->footer("A fingerprint is the SHA-256 of the key's DER SubjectPublicKeyInfo, as\n"
                "  openssl pkey -pubin -outform DER -in KEY.pem | sha256sum\n"
                "Exit status: 0 (with given keys: both present and equal to the built-in ones);\n"
                "1 a given key differs or is missing; 2 unreadable keys or bad usage.\n");
    cmd->callback([options, &status]() { status = runKeys(*options); });
}

}  // namespace kzol
