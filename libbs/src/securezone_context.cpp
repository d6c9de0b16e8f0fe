#include "securezone_context.h"

#include <unistd.h>

#include <cstdio>

#include "handles.h"
#include "log.h"

namespace {

constexpr std::int32_t c_isolatedContainer = 1;

}  // namespace

SecureZoneContext::SecureZoneContext(const char* zonePath) : m_zonePath(zonePath)
{
}

bool SecureZoneContext::getContainerInformation(ContainerContent& out)
{
    const FilePtr file(m_zonePath != nullptr ? std::fopen(m_zonePath, "r") : nullptr);
    if (file == nullptr) {
        KZOL_LOGE("Failed to open zone file");
        return false;
    }
    // NOLINTNEXTLINE(cert-err34-c): the zone file's fixed "%d %d" scan
    const int scanned = std::fscanf(file.get(), "%d %d", &out.level, &out.type);
    if (scanned != 2) {
        KZOL_LOGE("Failed to read zone file");
        return false;
    }
    return true;
}

bool SecureZoneContext::isIsolatedContainer()
{
    ContainerContent content{};
    if (!getContainerInformation(content)) {
        return false;
    }
    if (content.type != c_isolatedContainer) {
        return false;
    }
    KZOL_LOGI("[zol] Isolate container process lv : %d, type : %d", content.level, c_isolatedContainer);
    return true;
}

bool SecureZoneContext::isRootUID()
{
    return getuid() == 0 || geteuid() == 0;
}
