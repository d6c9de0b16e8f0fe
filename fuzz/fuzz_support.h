// Helpers of the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The path of an in-memory file (memfd, opened through /proc/self/fd) that
// now holds exactly `data`, as any file on disk would; empty on failure.
std::string fileWith(const uint8_t* data, size_t size);
