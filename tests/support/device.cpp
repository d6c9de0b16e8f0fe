#include "device.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace kzol_test {

DeviceProfile::DeviceProfile()
{
    modules("micom 1236992 0 - Live 0x0000000000000000\nsdp_gpio 16384 1 micom, Live 0x0000000000000000\n");
    zone("0 0\n");
    uid("5000 5000\n");
    deviceId(c_deviceId);
    mkdir(m_dir.file("usb").c_str(), 0755);
    m_trace = m_dir.path() + ".trace";
    setenv("KZOL_PROFILE", m_dir.path().c_str(), 1);
    setenv("KZOL_EMULATE_TRACE", m_trace.c_str(), 1);
}

DeviceProfile::~DeviceProfile()
{
    unsetenv("KZOL_PROFILE");
    unsetenv("KZOL_EMULATE_TRACE");
    unlink(m_trace.c_str());
}

void DeviceProfile::modules(const std::string& content)
{
    writeFile(m_dir.file("modules"), content);
}

void DeviceProfile::noModules()
{
    unlink(m_dir.file("modules").c_str());
}

void DeviceProfile::zone(const std::string& content)
{
    writeFile(m_dir.file("zone"), content);
}

void DeviceProfile::noZone()
{
    unlink(m_dir.file("zone").c_str());
}

void DeviceProfile::uid(const std::string& content)
{
    writeFile(m_dir.file("uid"), content);
}

void DeviceProfile::deviceId(const std::string& id)
{
    run("mkdir -p '" + m_dir.file("vconf/db/comss") + "'");
    writeFile(m_dir.file("vconf/db/comss/hwduid"), id);
}

void DeviceProfile::noDeviceId()
{
    unlink(m_dir.file("vconf/db/comss/hwduid").c_str());
}

std::string DeviceProfile::stick(const std::string& name)
{
    const std::string mount = m_dir.file("usb/" + name);
    mkdir(mount.c_str(), 0755);
    return mount;
}

void DeviceProfile::deviceWithoutMountPath(const std::string& name)
{
    writeFile(m_dir.file("usb/" + name + ".nomount"), "");
}

void DeviceProfile::walkAnswers(int result)
{
    writeFile(m_dir.file("usb/.foreach-result"), std::to_string(result));
}

void DeviceProfile::noUsbService()
{
    run("rm -rf '" + m_dir.file("usb") + "'");
}

std::vector<std::string> DeviceProfile::takeTrace()
{
    std::istringstream text(readFile(m_trace));
    unlink(m_trace.c_str());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace kzol_test
