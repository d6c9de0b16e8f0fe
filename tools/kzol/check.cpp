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
#include "log_observer.h"

namespace kzol {

namespace {

struct CheckOptions {
    std::string file;
    std::string caller = "kzol";
};

// What the library's log says about the way the decision went.
struct Trail {
    std::string result;  // set when the signature was verified
    std::string reason;  // an exemption that allowed the file
    bool missing = false;
};

void follow(Trail& trail, const std::string& message)
{
    const auto has = [&](const char* text) { return message.find(text) != std::string::npos; };
    if (has("\033[1;32mCorrect Signed [ file_path")) {
        trail.result = resultName(BS_SIGNATURE_CORRECT);
    } else if (has("\033[1;31mIncorrect Signed [ file_path")) {
        trail.result = resultName(BS_SIGNATURE_INCORRECT);
    } else if (has("\033[1;31mNot Signed [ file_path")) {
        trail.result = resultName(BS_NOT_SIGNED);
    } else if (has("\033[1;35mDisable Script ZOL")) {
        trail.reason = "disable certificate";
    } else if (has("[zol] Isolate container process")) {
        trail.reason = "isolated container";
    } else if (has(" does not exist;")) {
        trail.missing = true;
    }
}

int runCheck(const CheckOptions& options)
{
    Trail trail;
    int answer = 0;
    {
        const LogObserver observer([&trail](int, const std::string& message) { follow(trail, message); });
        answer = verifyFileWihtoutKey(options.file.c_str(), options.caller.c_str());
    }
    if (answer == 1) {
        std::string detail = !trail.result.empty() ? trail.result : trail.reason;
        std::cout << "allowed" << (detail.empty() ? "" : " (" + detail + ")") << "\n";
        return c_exitSuccess;
    }
    // A refused file that exists was verified: a result without a line of its
    // own is an error of the verification.
    const std::string detail = trail.missing ? "file does not exist" : !trail.result.empty() ? trail.result : resultName(BS_ERROR);
    std::cout << "refused (" << detail << ")\n";
    return c_exitNegative;
}

}  // namespace

void addCheckCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand(
        "check", "Ask the library whether FILE may run, exactly as a platform component does "
                 "(verifyFileWihtoutKey). Prints \"allowed\" or \"refused\", with the verification "
                 "result or the exemption that decided. Run it under 'kzol emulate PROFILE --' to "
                 "ask as on a television. Exit 0 allowed, 1 refused.");
    command->add_option("FILE", options->file, "The file to check")->required();
    command->add_option("--caller", options->caller, "Caller name shown in messages and reports")
        ->capture_default_str();
    command->callback([options, &status] { status = runCheck(*options); });
}

}  // namespace kzol
