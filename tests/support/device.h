// A television (or not) for the library to run on: a device profile that the
// emulation library answers /proc/modules, /proc/self/zone, the user IDs, the
// configuration store and the USB walk from. Test programs that use it link
// the emulation library ahead of the platform's.
#pragma once

#include <string>
#include <vector>

#include "test_support.h"

namespace kzol_test {

class DeviceProfile {
public:
    // A television with identifier c_deviceId, USB service up with nothing
    // attached, a process with user IDs 5000 outside any container.
    DeviceProfile();
    ~DeviceProfile();
    DeviceProfile(const DeviceProfile&) = delete;
    DeviceProfile& operator=(const DeviceProfile&) = delete;

    static constexpr const char* c_deviceId = "DUID-TEST-0001";

    void modules(const std::string& content);  // the /proc/modules text
    void noModules();
    void zone(const std::string& content);
    void noZone();
    void uid(const std::string& content);      // "RUID EUID"
    void deviceId(const std::string& id);
    void noDeviceId();
    // An attached stick; answers its mount path (a directory).
    std::string stick(const std::string& name);
    void deviceWithoutMountPath(const std::string& name);
    void walkAnswers(int result);
    void noUsbService();

    // The accesses the emulation answered since the last call.
    std::vector<std::string> takeTrace();
    const std::string& path() const { return m_dir.path(); }

private:
    TempDir m_dir;
    std::string m_trace;
};

}  // namespace kzol_test
