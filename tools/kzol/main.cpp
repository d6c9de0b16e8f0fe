// kzol: keys, signing, inspection and checks for libkZOLUser.
#include <CLI/CLI.hpp>

#include <iostream>

#include "commands.h"
#include "common.h"
#include "kZOLUser.h"
#include "log_observer.h"

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

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app.exit(e);  // --help, --version
        }
        kzol::fail(e.what());
        std::cerr << "Run 'kzol --help' or 'kzol <command> --help' for usage." << std::endl;
        return kzol::c_exitError;
    }
    return status;
}
