// The kzol subcommands. Each add*Command registers one subcommand on the
// application; when that subcommand is chosen, its callback runs the command
// and stores the command's exit status in `status`.
#pragma once

namespace CLI {
class App;
}

namespace kzol {

void addKeygenCommand(CLI::App& app, int& status);   // keys.cpp
void addSignCommand(CLI::App& app, int& status);     // sign.cpp
void addInspectCommand(CLI::App& app, int& status);  // inspect.cpp
void addVerifyCommand(CLI::App& app, int& status);   // verify.cpp
void addListenCommand(CLI::App& app, int& status);   // listen.cpp
void addReportCommand(CLI::App& app, int& status);   // report.cpp
void addCertCommand(CLI::App& app, int& status);     // cert.cpp
void addEmulateCommand(CLI::App& app, int& status);  // emulate.cpp
void addProfileCommand(CLI::App& app, int& status);  // emulate.cpp
void addCheckCommand(CLI::App& app, int& status);    // check.cpp
void addKeysCommand(CLI::App& app, int& status);     // fingerprints.cpp
void addAuditCommand(CLI::App& app, int& status);    // audit.cpp
void addExecCommand(CLI::App& app, int& status);     // exec.cpp
void addEnforceCommand(CLI::App& app, int& status);  // enforce.cpp

}  // namespace kzol
