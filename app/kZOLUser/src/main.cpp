// The library's exported entry points and its static initialisation.
#include <string>

#include "string_utils.h"

// The library's one static initialiser builds, in this order, the base64
// alphabet and the path of the last disable certificate found; they are
// destroyed in the reverse order when the library is unloaded.
const std::string base64_chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
static std::string USBZOLPath;

extern "C" int main()
{
    return 0;
}
