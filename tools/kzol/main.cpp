// kzol: keys, signing, inspection and checks for libkZOLUser.
#include <CLI/CLI.hpp>
#include <openssl/crypto.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "common.h"
#include "kZOLUser.h"
#include "log_observer.h"

namespace {

// Every value the command line gave, wiped once the command is done: the
// name of a key in a token may hold its PIN (pin-value). The command line
// itself (argv) is the caller's.
void wipeResults(CLI::App& app)
{
    for (CLI::Option* option : app.get_options()) {
        for (const std::string& result : option->results()) {
            OPENSSL_cleanse(const_cast<char*>(result.data()), result.size());
        }
    }
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        wipeResults(*command);
    }
}

// Edits (insertions, deletions, substitutions) that turn `a` into `b`.
std::size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// The first word that is no option of kzol itself, when it names no command:
// named, with the nearest command when one is near.
bool unknownCommand(CLI::App& app, int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (!word.empty() && word[0] == '-') {
            continue;
        }
        std::string nearest;
        std::size_t best = 3;
        for (const CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
            if (command->get_name() == word) {
                return false;
            }
            const std::size_t distance = editDistance(word, command->get_name());
            if (distance < best) {
                best = distance;
                nearest = command->get_name();
            }
        }
        kzol::fail("unknown command '" + word + "'" + (nearest.empty() ? "" : "; did you mean '" + nearest + "'?"));
        std::cerr << "Run 'kzol --help' for the commands." << std::endl;
        return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"kzol: keys, signing, inspection and checks for libkZOLUser", "kzol"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("kzol ") + kZOLUserVersion());
    app.footer("Exit status: 0 success; 1 negative result; 2 usage or I/O error.\n");

    int status = kzol::c_exitSuccess;
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Show the library's own log lines (coloured only on a terminal)");
    // Decided before any command runs.
    app.parse_complete_callback([&verbose] { kzol::setLibraryLogShown(verbose, kzol::colourWanted(2)); });
    kzol::addKeygenCommand(app, status);
    kzol::addSignCommand(app, status);
    kzol::addInspectCommand(app, status);
    kzol::addVerifyCommand(app, status);
    kzol::addListenCommand(app, status);
    kzol::addReportCommand(app, status);
    kzol::addCertCommand(app, status);
    kzol::addEmulateCommand(app, status);
    kzol::addProfileCommand(app, status);
    kzol::addCheckCommand(app, status);
    kzol::addKeysCommand(app, status);
    kzol::addAuditCommand(app, status);
    kzol::addExecCommand(app, status);
    kzol::addEnforceCommand(app, status);
    // -v may also follow a command's own arguments, except where those
    // arguments are handed on to another program.
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        command->fallthrough(command->get_name() != "exec" && command->get_name() != "emulate");
    }

    if (unknownCommand(app, argc, argv)) {
        return kzol::c_exitError;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        wipeResults(app);
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app.exit(e);  // --help, --version
        }
        kzol::fail(e.what());
        std::cerr << "Run 'kzol --help' or 'kzol <command> --help' for usage." << std::endl;
        return kzol::c_exitError;
    }
    wipeResults(app);
    return status;
}
