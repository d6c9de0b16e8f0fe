#include "device.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace kzol_test {

DeviceProfile::DeviceProfile()
{
    set("modules", "micom 1236992 0 - Live 0x0000000000000000\nsdp_gpio 16384 1 micom, Live 0x0000000000000000\n");
    set("zone", "0 0\n");
    set("uid", "5000 5000\n");
    set("vconf/db/comss/hwduid", c_deviceId);
    std::filesystem::create_directory(m_dir.file("usb"));
    setenv("KZOL_PROFILE", m_dir.path().c_str(), 1);
    setenv("KZOL_EMULATE_TRACE", m_dir.file("trace").c_str(), 1);
}

DeviceProfile::~DeviceProfile()
{
    unsetenv("KZOL_PROFILE");
    unsetenv("KZOL_EMULATE_TRACE");
}

void DeviceProfile::set(const std::string& file, const char* content)
{
    const std::filesystem::path path = m_dir.file(file);
    std::filesystem::create_directories(path.parent_path());
    content != nullptr ? writeFile(path, content) : (void)std::filesystem::remove(path);
}

std::string DeviceProfile::takeTrace()
{
    const std::string trace = readFile(m_dir.file("trace"));
    std::filesystem::remove(m_dir.file("trace"));
    return trace;
}

}  // namespace kzol_test
