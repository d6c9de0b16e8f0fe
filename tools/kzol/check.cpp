// kzol check: the library's real decision on a file, as a platform component
// would get it from verifyFileWihtoutKey, with what led to it.
#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>
#include <string>

#include "bs_context.h"
#include "commands.h"
#include "common.h"
#include "kZOLUser.h"

namespace kzol {

namespace {

struct CheckOptions {
    std::string file;
    std::string caller = "kzol";
};

// The reason shown beside the answer, from the step the library names.
std::string reasonOf(const kzol_decision& decision)
{
    switch (decision.step) {
    case KZOL_STEP_MISSING: return "file does not exist";
    case KZOL_STEP_OUTSIDE_AREAS: return "outside the user-writable areas";
    case KZOL_STEP_NOT_TELEVISION: return "not a television";
    case KZOL_STEP_DISABLE_CERTIFICATE: return "disable certificate";
    case KZOL_STEP_ISOLATED_CONTAINER: return "isolated container";
    case KZOL_STEP_SIGNATURE:
        if (const char* name = resultName(static_cast<Result>(decision.result)); name != nullptr) {
            return name;
        }
        return "BS_ERROR";
    default: return "failure inside the library";
    }
}

int runCheck(const CheckOptions& options)
{
    kzol_decision decision{};
    const int answer = verifyFileExplained(options.file.c_str(), options.caller.c_str(), &decision);
    std::cout << (answer == 1 ? "allowed (" : "refused (") << reasonOf(decision) << ")" << std::endl;
    return answer == 1 ? c_exitSuccess : c_exitNegative;
}

}  // namespace

void addCheckCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<CheckOptions>();
    CLI::App* command =
        app.add_subcommand("check", "Ask the library whether FILE may run, exactly as a platform component does "
                                    "(verifyFileWihtoutKey). Prints \"allowed\" or \"refused\", with the verification "
                                    "result or the exemption that decided. Run it under 'kzol emulate PROFILE --' to "
                                    "ask as on a television. Exit 0 allowed, 1 refused.");
    command->add_option("FILE", options->file, "The file to check")->required();
    command->add_option("--caller", options->caller, "Caller name shown in messages and reports")
        ->capture_default_str();
    command->callback([options, &status] { status = runCheck(*options); });
}

}  // namespace kzol
