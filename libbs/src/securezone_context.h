// SecureZoneContext: what the process's zone file and user IDs say about the
// process. The zone file holds two numbers: the container level and the
// container type (1 = an isolated container).
#pragma once

#include <cstdint>

class SecureZoneContext {
public:
    struct ContainerContent {
        std::int32_t level;
        std::int32_t type;
    };

    // `zonePath` is not copied: it must outlive the object.
    explicit SecureZoneContext(const char* zonePath);

    // Both numbers of the zone file. A file that holds fewer than two numbers
    // counts as not read: a type that was never read must not decide anything.
    bool getContainerInformation(ContainerContent& out);
    // The zone file was read and its type is 1.
    bool isIsolatedContainer();
    // The real or the effective user ID is 0.
    bool isRootUID();

private:
    const char* m_zonePath;
};
