#include "device.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace kzol_test {

DeviceProfile::DeviceProfile() : m_trace(m_dir.path() + ".trace")
{
    set("modules", "micom 1236992 0 - Live 0x0000000000000000\nsdp_gpio 16384 1 micom, Live 0x0000000000000000\n");
    set("zone", "0 0\n");
    set("uid", "5000 5000\n");
    run("mkdir -p '" + m_dir.file("vconf/db/comss") + "' '" + m_dir.file("usb") + "'");
    set("vconf/db/comss/hwduid", c_deviceId);
    setenv("KZOL_PROFILE", m_dir.path().c_str(), 1);
    setenv("KZOL_EMULATE_TRACE", m_trace.c_str(), 1);
}

DeviceProfile::~DeviceProfile()
{
    unsetenv("KZOL_PROFILE");
    unsetenv("KZOL_EMULATE_TRACE");
    std::remove(m_trace.c_str());
}

void DeviceProfile::set(const std::string& file, const char* content)
{
    content != nullptr ? writeFile(m_dir.file(file), content) : (void)std::remove(m_dir.file(file).c_str());
}

std::string DeviceProfile::stick(const std::string& name)
{
    run("mkdir -p '" + m_dir.file("usb/" + name) + "'");
    return m_dir.file("usb/" + name);
}

std::vector<std::string> DeviceProfile::takeTrace()
{
    std::istringstream text(readFile(m_trace));
    std::remove(m_trace.c_str());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace kzol_test
