// A television (or not) for the library to run on: a device profile that the
// emulation library answers /proc/modules, /proc/self/zone, the user IDs, the
// configuration store and the USB walk from (test programs that use it link
// the emulation library ahead of the platform's); and the lines the library
// logs about its device.
#pragma once

#include "test_support.h"

namespace kzol_test {

class DeviceProfile {
public:
    static constexpr const char* c_deviceId = "DUID-TEST-0001";
    // A television with identifier c_deviceId, USB service up with nothing
    // attached, a process with user IDs 5000 outside any container.
    DeviceProfile()
    {
        set("modules", "micom 1236992 0 - Live 0x0000000000000000\nsdp_gpio 16384 1 micom, Live 0x0000000000000000\n");
        set("zone", "0 0\n");
        set("uid", "5000 5000\n");
        set("vconf/db/comss/hwduid", c_deviceId);
        std::filesystem::create_directory(m_dir.file("usb"));
    }
    // Writes a file of the profile, or removes it when `content` is null:
    // "modules", "zone", "uid" ("RUID EUID"), "vconf/db/comss/hwduid" (the
    // device identifier), "usb" (the USB service, while nothing is attached),
    // "usb/NAME/FILE" (a file on an attached stick), "usb/NAME.nomount" (a
    // device without mount path), "usb/.foreach-result" (the walk's answer).
    void set(const std::string& file, const char* content)
    {
        content != nullptr ? writeFile(m_dir.file(file), content) : (void)std::filesystem::remove(m_dir.file(file));
    }
    // The accesses the emulation answered since the last call, one a line.
    std::string takeTrace()
    {
        const std::string trace = readFile(m_dir.file("trace"));
        std::filesystem::remove(m_dir.file("trace"));
        return trace;
    }
    const std::string& path() const { return m_dir.path(); }

private:
    TempDir m_dir;
    // The emulation's answers come from this profile while it lasts, then
    // from the one (or none) that was in force before.
    const EnvVar m_profile{"KZOL_PROFILE", m_dir.path()};
    const EnvVar m_trace{"KZOL_EMULATE_TRACE", m_dir.file("trace")};
};

// A user-writable area of an emulated television: a fresh directory below
// `base` (/tmp unless given), named by its real path, and the device profile.
// The profile answers getuid and geteuid from then on: ask for the process's
// own IDs before making one.
struct UserArea {
    explicit UserArea(const char* base = "/tmp") : dir(base) {}
    const TempDir dir;
    DeviceProfile device;
    const std::string path = std::filesystem::canonical(dir.path()).string();
    std::string file(const std::string& name) const { return path + "/" + name; }
};

inline std::string isolatedLine(int level)
{
    return infoLine("securezone_context.cpp", "isIsolatedContainer",
                    "[zol] Isolate container process lv : " + std::to_string(level) + ", type : 1");
}
inline std::string certificateFoundLine(const std::string& path)
{
    return infoLine("main.cpp", "handleStorageCallback", "Find USBZOLPath : " + path);
}
const std::string c_noUsbLine = warnLine("main.cpp", "FindZOLDiableFile", "No connected usb_mass_storage");
const std::string c_noModulesLine = infoLine("main.cpp", "IsDTV", "[zol] /proc/modules is not exited");
const std::string c_noDeviceIdLine = errorLine("main.cpp", "GetDUID", "Hwduid get failed;");

}  // namespace kzol_test
