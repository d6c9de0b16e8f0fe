// kzol report: sends a security report through the library's exported
// SendSecurityReport, as any platform component would.
#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "commands.h"
#include "common.h"

// Exported by libkZOLUser: 0 when every requested message was handed over.
extern "C" int SendSecurityReport(const char* caller, const char* fileType, const char* path, const char* description,
                                  int type);

namespace kzol {

namespace {

struct ReportOptions {
    std::string caller;
    std::string fileType;
    std::string path;
    std::string description;
    int type = 0;
    CLI::Option* callerOption = nullptr;
    CLI::Option* fileTypeOption = nullptr;
    CLI::Option* pathOption = nullptr;
    CLI::Option* descriptionOption = nullptr;
};

// The text of a given option; a null pointer for one left out.
const char* given(const CLI::Option* option, const std::string& text)
{
    return option->count() > 0 ? text.c_str() : nullptr;
}

int runReport(const ReportOptions& o)
{
    const int answer =
        SendSecurityReport(given(o.callerOption, o.caller), given(o.fileTypeOption, o.fileType),
                           given(o.pathOption, o.path), given(o.descriptionOption, o.description), o.type);
    if (answer != 0) {
        return fail(c_exitNegative, "a report was not delivered to SfDaemon/UserMsg (is a daemon listening?)");
    }
    return c_exitSuccess;
}

}  // namespace

void addReportCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<ReportOptions>();
    CLI::App* cmd = app.add_subcommand("report", "Send a security report to the daemon (SendSecurityReport)");
    options->callerOption = cmd->add_option("--caller", options->caller, "Caller name (sent cut to 16 bytes)");
    options->fileTypeOption =
        cmd->add_option("--file-type", options->fileType, "File type text (sent cut to 16 bytes)");
    options->pathOption =
        cmd->add_option("--path", options->path, "Path (sent resolved to its canonical form when it exists)");
    options->descriptionOption =
        cmd->add_option("--description", options->description, "Description (sent cut to 1024 bytes)");
    cmd->add_option("--type", options->type, "Report type: 0 log report; bit 0 file report; bit 1 data report")
        ->required();
    cmd->footer("Each report goes over a connection of its own to SfDaemon/UserMsg. A text option left out\n"
                "is passed as a null pointer (sent as an empty string). Type 3 sends a file report and a\n"
                "data report; a type with neither bit (4, 8, ...) sends nothing.\n"
                "Exit status: 0 every requested report was handed over; 1 one could not be delivered\n"
                "(for example nobody listens); 2 bad usage.\n");
    cmd->callback([options, &status]() { status = runReport(*options); });
}

}  // namespace kzol
