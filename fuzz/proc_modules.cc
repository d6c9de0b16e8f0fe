// IsDTV() over arbitrary /proc/modules contents. Build machines may run a
// kernel without module support, with no /proc/modules to mount a file over,
// so this program answers the library's fopen of "/proc/modules" itself with
// the in-memory file that holds the input; every other path is opened as
// usual. Checked without reading the file in pieces as the reader does:
// contents without "micom" anywhere are no television, and contents with a
// line that begins with "micom" are one.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "main.h"

namespace {

using OpenFunction = FILE* (*)(const char*, const char*);

// The file that stands in for /proc/modules during the current input.
std::string g_modules;

// The definition of `name` that this program's stands in front of.
OpenFunction nextOpen(const char* name)
{
    const auto next = reinterpret_cast<OpenFunction>(dlsym(RTLD_NEXT, name));
    if (next == nullptr) {
        std::fprintf(stderr, "proc_modules: no %s behind this program's: %s\n", name, dlerror());
        std::abort();
    }
    return next;
}

const char* standIn(const char* path)
{
    return path != nullptr && std::strcmp(path, "/proc/modules") == 0 ? g_modules.c_str() : path;
}

}  // namespace

extern "C" FILE* fopen(const char* path, const char* mode)
{
    static const OpenFunction next = nextOpen("fopen");
    return next(standIn(path), mode);
}

extern "C" FILE* fopen64(const char* path, const char* mode)
{
    static const OpenFunction next = nextOpen("fopen64");
    return next(standIn(path), mode);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    g_modules = fileWith(data, size);
    if (g_modules.empty()) {
        return 0;
    }
    const bool television = IsDTV();
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (television && text.find("micom") == std::string::npos) {
        std::abort();
    }
    if (!television && (text.compare(0, 5, "micom") == 0 || text.find("\nmicom") != std::string::npos)) {
        std::abort();
    }
    return 0;
}
