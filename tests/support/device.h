// A television (or not) for the library to run on: a device profile that the
// emulation library answers /proc/modules, /proc/self/zone, the user IDs, the
// configuration store and the USB walk from (test programs that use it link
// the emulation library ahead of the platform's); and the lines the library
// logs about its device.
#pragma once

#include <string>

#include "test_support.h"

namespace kzol_test {

class DeviceProfile {
public:
    // A television with identifier c_deviceId, USB service up with nothing
    // attached, a process with user IDs 5000 outside any container.
    DeviceProfile();
    ~DeviceProfile();
    static constexpr const char* c_deviceId = "DUID-TEST-0001";
    // Writes a file of the profile (with the directories it needs), or
    // removes it when `content` is null: "modules", "zone", "uid" ("RUID
    // EUID"), "vconf/db/comss/hwduid" (the device identifier), "usb" (the USB
    // service, while nothing is attached), "usb/NAME/FILE" (a file on an
    // attached stick), "usb/NAME.nomount" (a device without mount path),
    // "usb/.foreach-result" (the walk's answer).
    void set(const std::string& file, const char* content);
    // The accesses the emulation answered since the last call, one a line.
    std::string takeTrace();
    const std::string& path() const { return m_dir.path(); }

private:
    TempDir m_dir;
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
