// kzol's batch verifier against the library on arbitrary file contents: with
// the development keys given to both, its verdict is always the library's
// (BSContext::verifyFileWithKeys), and a reason goes with every failure.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "batch_verifier.h"
#include "bs_context.h"
#include "fuzz_support.h"

namespace {

std::string devKeyText(char selector)
{
    const std::string path = std::string(KZOL_SOURCE_DIR) + "/keys/dev/public_key_" + selector + ".pem";
    std::string text;
    FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        std::abort();
    }
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
        text += static_cast<char>(c);
    }
    std::fclose(file);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const kzol::KeySet keys{devKeyText('5'), devKeyText('6')};
    static kzol::BatchVerifier verifier;
    static const bool loaded = [] {
        std::string error;
        return verifier.load(keys, error);
    }();
    if (!loaded) {
        std::abort();
    }
    const std::string path = fileWith(data, size);
    if (path.empty()) {
        return 0;
    }
    BSContext context;
    const Result expected = context.verifyFileWithKeys(path, keys.pem5, keys.pem6, "fuzz");
    const kzol::Verdict verdict = verifier.verifyPath(path, true);
    if (verdict.result != expected || (expected != BS_SIGNATURE_CORRECT) != (verdict.reason != kzol::Reason::None)) {
        std::abort();
    }
    return 0;
}
