// kzol verify: the library's own verdict on a file, with its built-in keys.
#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <iostream>
#include <memory>

#include "bs_context.h"
#include "commands.h"
#include "common.h"

namespace kzol {

namespace {

struct VerifyOptions {
    std::string file;
    std::string caller = "kzol";
};

int runVerify(const VerifyOptions& options)
{
    const std::string& path = options.file;
    // The library answers BS_NOT_SIGNED for a file it cannot open; a missing
    // or unreadable file is a usage error here, not a verdict.
    if (const int status = requireRegularFile(path); status != c_exitSuccess) {
        return status;
    }
    {
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd) {
            return fail("cannot read " + path + ": " + errnoText(errno));
        }
    }

    const Result result = BSContext().verifyFile(path, options.caller.c_str());
    std::cout << resultName(result) << std::endl;
    return result == BS_SIGNATURE_CORRECT ? c_exitSuccess : c_exitNegative;
}

}  // namespace

void addVerifyCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* cmd = app.add_subcommand("verify", "Check a file's signature with the library's built-in keys");
    cmd->add_option("FILE", options->file, "File to check")->required();
    cmd->add_option("--caller", options->caller, "Caller name the library logs with the outcome (default: kzol)");
    cmd->footer(
        "Prints the library's result: BS_SIGNATURE_CORRECT, BS_SIGNATURE_INCORRECT, BS_NOT_SIGNED\n"
        "or BS_ERROR.\n"
        "Exit status: 0 BS_SIGNATURE_CORRECT; 1 any other result; 2 FILE missing, not a regular\n"
        "file or unreadable, or bad usage.\n");
    cmd->callback([options, &status]() { status = runVerify(*options); });
}

}  // namespace kzol
