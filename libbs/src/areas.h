// The user-writable areas of the device and the directories below them that
// are not: which of the three a real path lies in. Both lists are matched as
// plain prefixes, the second against the rest of the path after the area.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace areas {

constexpr std::string_view c_userAreas[] = {"/opt", "/tmp"};
constexpr std::string_view c_excludedDirectories[] = {"/var/tmp/rpm-tmp", "/data/pebblecove"};

enum class Place { outside, excluded, inside };

struct Location {
    Place place;
    std::size_t areaLength;  // the length of the area's prefix, when in one
};

inline Location locate(const char* realPath)
{
    for (const std::string_view area : c_userAreas) {
        if (std::strncmp(realPath, area.data(), area.size()) != 0) {
            continue;
        }
        const char* rest = realPath + area.size();
        for (const std::string_view excluded : c_excludedDirectories) {
            if (std::strncmp(rest, excluded.data(), excluded.size()) == 0) {
                return {Place::excluded, area.size()};
            }
        }
        return {Place::inside, area.size()};
    }
    return {Place::outside, 0};
}

}  // namespace areas
