// kzol emulate and kzol profile init: run a command as if on a television
// described by a device profile, and make such a profile.
//
// The emulation is a library preloaded into the command (libkzol_emulate):
// it answers /proc/modules, /proc/self/zone, the user IDs, the configuration
// store and the USB service from the profile directory named by KZOL_PROFILE.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <set>
#include <vector>

#include "atomic_file.h"
#include "commands.h"
#include "common.h"
#include "profile_layout.h"

#ifndef KZOL_EMULATE_LIB_PATH
#error "KZOL_EMULATE_LIB_PATH: the path of the built emulation library"
#endif

namespace kzol {

namespace {

// ---- the profile layout --------------------------------------------------

const char* const c_profileLayout = KZOL_PROFILE_LAYOUT_TEXT;

// /proc/modules of a television: the front micro-controller's driver first.
const char* const c_tvModules = "micom 40960 3 - Live 0x0000000000000000\n"
                                "sdp_mali 1236992 14 - Live 0x0000000000000000\n"
                                "sdp_hdmi_rx 86016 2 - Live 0x0000000000000000\n"
                                "tztv_frontend 212992 1 - Live 0x0000000000000000\n"
                                "usb_storage 69632 1 - Live 0x0000000000000000\n"
                                "vfat 24576 1 - Live 0x0000000000000000\n"
                                "fat 69632 1 vfat, Live 0x0000000000000000\n";

// /proc/modules of an ordinary PC.
const char* const c_pcModules = "snd_hda_intel 57344 3 - Live 0x0000000000000000\n"
                                "snd_hda_codec 176128 1 snd_hda_intel, Live 0x0000000000000000\n"
                                "i915 3489792 42 - Live 0x0000000000000000\n"
                                "e1000e 311296 0 - Live 0x0000000000000000\n"
                                "uas 32768 0 - Live 0x0000000000000000\n"
                                "usb_storage 81920 1 uas, Live 0x0000000000000000\n"
                                "ext4 1003520 2 - Live 0x0000000000000000\n";

constexpr mode_t c_profileDirMode = 0755;
constexpr mode_t c_profileFileMode = 0644;
constexpr unsigned long long c_maxUid = std::numeric_limits<std::uint32_t>::max() - 1ULL;

struct ProfileOptions {
    std::string directory;
    bool tv = false;
    std::string duid;
    bool hasDuid = false;
    std::vector<int> zone;
    std::vector<std::string> uid;
    std::vector<std::string> usb;
};

bool parseUid(const std::string& text, unsigned long long& uid)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    uid = std::stoull(text);
    return uid <= c_maxUid;
}

bool writeText(const std::string& path, const std::string& text, std::string& error)
{
    return writeFileAtomic(path, ByteBuffer(text.begin(), text.end()), c_profileFileMode, false, error);
}

int runProfileInit(const ProfileOptions& options)
{
    std::string error;
    unsigned long long ruid = 0, euid = 0;
    if (!options.uid.empty()) {
        if (!parseUid(options.uid[0], ruid) || (options.uid.size() > 1 && !parseUid(options.uid[1], euid))) {
            return fail("--uid takes user IDs from 0 to " + std::to_string(c_maxUid));
        }
        if (options.uid.size() == 1) {
            euid = ruid;
        }
    }
    std::set<std::string> sticks;
    for (const std::string& name : options.usb) {
        if (name.empty() || name[0] == '.' || name.find('/') != std::string::npos) {
            return fail("--usb " + name + ": a stick's name is one path component, not starting with '.'");
        }
        if (!sticks.insert(name).second) {
            return fail("--usb " + name + " given twice");
        }
    }
    if (options.hasDuid && options.duid.find('\0') != std::string::npos) {
        return fail("--duid holds a NUL byte");
    }

    struct stat st {};
    if (::stat(options.directory.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) {
            return fail(options.directory + " exists and is not a directory");
        }
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(options.directory.c_str()), &::closedir);
        if (!dir) {
            return fail("cannot read " + options.directory + ": " + errnoText(errno));
        }
        for (const dirent* e; (e = ::readdir(dir.get())) != nullptr;) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") {
                return fail(c_exitNegative,
                            options.directory + " is not empty; a profile is made in a new or empty directory");
            }
        }
    } else if (errno != ENOENT || !makeDirectories(options.directory, c_profileDirMode, error)) {
        return fail(error.empty() ? "cannot use " + options.directory + ": " + errnoText(errno) : error);
    }
    const std::string root = resolvedPath(options.directory);

    // Each line: the file written and what the emulation makes of it.
    std::vector<std::pair<std::string, std::string>> layout;

    if (!writeText(root + "/" KZOL_PROFILE_MODULES, options.tv ? c_tvModules : c_pcModules, error)) {
        return fail(error);
    }
    layout.emplace_back("modules", options.tv ? "/proc/modules lists micom: a television"
                                              : "/proc/modules without micom: not a television");

    if (options.hasDuid) {
        if (!makeDirectories(root + "/" KZOL_PROFILE_VCONF "/db/comss", c_profileDirMode, error) ||
            !writeText(root + "/" KZOL_PROFILE_VCONF "/db/comss/hwduid", options.duid + "\n", error)) {
            return fail(error);
        }
        layout.emplace_back("vconf/db/comss/hwduid", "device identifier \"" + printable(options.duid) + "\"");
    } else {
        layout.emplace_back("(no vconf/db/comss/hwduid)", "no device identifier in the store");
    }

    if (!options.zone.empty()) {
        const std::string text = std::to_string(options.zone[0]) + " " + std::to_string(options.zone[1]) + "\n";
        if (!writeText(root + "/" KZOL_PROFILE_ZONE, text, error)) {
            return fail(error);
        }
        layout.emplace_back("zone", "/proc/self/zone: level " + std::to_string(options.zone[0]) + ", type " +
                                        std::to_string(options.zone[1]) +
                                        (options.zone[1] == 1 ? " (isolated container)" : ""));
    } else {
        layout.emplace_back("(no zone)", "no /proc/self/zone");
    }

    if (!options.uid.empty()) {
        const std::string text = options.uid.size() == 1 ? std::to_string(ruid) + "\n"
                                                         : std::to_string(ruid) + " " + std::to_string(euid) + "\n";
        if (!writeText(root + "/" KZOL_PROFILE_UID, text, error)) {
            return fail(error);
        }
        layout.emplace_back("uid",
                            "real user ID " + std::to_string(ruid) + ", effective user ID " + std::to_string(euid));
    } else {
        layout.emplace_back("(no uid)", "the process's own user IDs");
    }

    if (!sticks.empty()) {
        if (!makeDirectories(root + "/" KZOL_PROFILE_USB, c_profileDirMode, error)) {
            return fail(error);
        }
        layout.emplace_back("usb/", "USB service with " + std::to_string(sticks.size()) +
                                        (sticks.size() == 1 ? " device" : " devices"));
        for (const std::string& name : sticks) {
            if (!makeDirectories(root + "/" KZOL_PROFILE_USB "/" + name, c_profileDirMode, error)) {
                return fail(error);
            }
            layout.emplace_back("usb/" + name + "/", "stick mounted at " + root + "/" KZOL_PROFILE_USB "/" + name);
        }
    } else {
        layout.emplace_back("(no usb/)", "the USB service does not start");
    }

    std::cout << "profile " << root << "\n";
    for (const auto& [file, meaning] : layout) {
        std::cout << "  " << file << std::string(file.size() < 28 ? 28 - file.size() : 1, ' ') << meaning << "\n";
    }
    std::cout << "run a command on this device: kzol emulate " << root << " -- COMMAND [ARGS...]\n";
    return c_exitSuccess;
}

// ---- kzol emulate ---------------------------------------------------------

struct EmulateOptions {
    std::string profile;
    std::vector<std::string> command;
};

// KZOL_EMULATE_LIB when set; else the library installed beside this kzol
// (<prefix>/bin/kzol and <prefix>/<libdir>/libkzol_emulate.so); else the one
// built with it.
std::string emulationLibrary()
{
    const char* override = std::getenv("KZOL_EMULATE_LIB");
    if (override != nullptr && *override != '\0') {
        return override;
    }
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        std::string dir(self, static_cast<std::size_t>(n));
        dir = dir.substr(0, dir.find_last_of('/'));
        const std::string installed = dir + "/../" KZOL_INSTALL_LIBDIR "/libkzol_emulate.so";
        if (::access(installed.c_str(), R_OK) == 0) {
            return installed;
        }
    }
    return KZOL_EMULATE_LIB_PATH;
}

int runEmulate(const EmulateOptions& options)
{
    struct stat st {};
    if (::stat(options.profile.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        return fail(options.profile + " is not a profile directory");
    }
    if (options.command.empty()) {
        return fail("no command to run");
    }
    const std::string profile = resolvedPath(options.profile);

    const std::string configured = emulationLibrary();
    if (::access(configured.c_str(), R_OK) != 0) {
        return fail("the emulation library " + configured + " cannot be read: " + errnoText(errno));
    }
    const std::string library = resolvedPath(configured);
    if (library.find_first_of(": \t") != std::string::npos) {
        return fail("the emulation library's path " + library + " cannot go into LD_PRELOAD (':' or blank in it)");
    }
    const char* preload = std::getenv("LD_PRELOAD");
    const std::string preloads = preload != nullptr && *preload != '\0' ? library + ":" + preload : library;
    if (::setenv("LD_PRELOAD", preloads.c_str(), 1) != 0 || ::setenv("KZOL_PROFILE", profile.c_str(), 1) != 0) {
        return fail("cannot set the environment: " + errnoText(errno));
    }

    std::vector<char*> argv;
    for (const std::string& arg : options.command) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::cout.flush();
    ::execvp(argv[0], argv.data());
    const int err = errno;
    return fail(err == ENOENT ? 127 : 126, "cannot run " + options.command[0] + ": " + errnoText(err));
}

}  // namespace

void addEmulateCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<EmulateOptions>();
    CLI::App* cmd = app.add_subcommand("emulate", "Run a command on the television that a profile describes");
    cmd->add_option("PROFILE", options->profile, "Profile directory (see kzol profile init --help)")->required();
    cmd->add_option("COMMAND", options->command, "The command and its arguments, after --")->required();
    cmd->footer("The command runs with the device emulation preloaded (LD_PRELOAD, ahead of any\n"
                "already set) and KZOL_PROFILE set to the profile's absolute path. The emulation library\n"
                "is KZOL_EMULATE_LIB when set; else libkzol_emulate.so in the library directory beside\n"
                "this kzol (<prefix>/" KZOL_INSTALL_LIBDIR "/libkzol_emulate.so for <prefix>/bin/kzol); else the one\n"
                "built with it in its build tree.\n"
                "Exit status: the command's own; 2 when PROFILE is not a directory or the emulation\n"
                "library is missing; 126 when the command cannot run, 127 when it is not found.\n");
    cmd->callback([options, &status]() { status = runEmulate(*options); });
}

void addProfileCommand(CLI::App& app, int& status)
{
    CLI::App* profile = app.add_subcommand("profile", "Device profiles for kzol emulate");
    profile->require_subcommand(1);

    auto options = std::make_shared<ProfileOptions>();
    CLI::App* init = profile->add_subcommand("init", "Create a device profile directory");
    init->add_option("DIR", options->directory, "Profile directory to create (new or empty)")->required();
    init->add_flag("--tv", options->tv, "A television: /proc/modules lists the micom module");
    init->add_option("--duid", options->duid, "Device identifier in the configuration store (db/comss/hwduid)");
    init->add_option("--zone", options->zone, "Container level and type of /proc/self/zone (type 1 = isolated)")
        ->expected(2)
        ->type_name("LEVEL TYPE");
    init->add_option("--uid", options->uid, "Real user ID, and the effective one when different")
        ->expected(1, 2)
        ->type_name("RUID [EUID]");
    init->add_option("--usb", options->usb, "An attached USB stick usb/NAME/ (repeatable)")
        ->allow_extra_args(false)
        ->type_name("NAME");
    init->footer(c_profileLayout);
    init->callback([options, &status, init]() {
        options->hasDuid = init->count("--duid") > 0;
        status = runProfileInit(*options);
    });
}

}  // namespace kzol
