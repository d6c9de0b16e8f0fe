// BSContext::verifyFile over arbitrary file contents, with the built-in keys.
// The answer is always one of 0, 4, 5, 6; and whenever it says "correctly
// signed", OpenSSL on its own must agree that the block's signature is a
// valid one over exactly the bytes before the block's text.
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bs_context.h"
#include "fuzz_support.h"
#include "handles.h"

namespace {

EvpPkeyPtr devKey(char selector)
{
    const std::string path = std::string(KZOL_SOURCE_DIR) + "/keys/dev/public_key_" + selector + ".pem";
    const FilePtr file(std::fopen(path.c_str(), "r"));
    if (file == nullptr) {
        std::abort();
    }
    EvpPkeyPtr key(PEM_read_PUBKEY(file.get(), nullptr, nullptr, nullptr));
    if (key == nullptr) {
        std::abort();
    }
    return key;
}

bool opensslAgrees(const uint8_t* data, const Signature& signature, char selector)
{
    static const EvpPkeyPtr key5 = devKey('5');
    static const EvpPkeyPtr key6 = devKey('6');
    ByteBuffer raw;
    if (!fromMPIString(signature, raw)) {
        return false;
    }
    const EvpMdCtxPtr context(EVP_MD_CTX_new());
    return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, (selector == '5' ? key5 : key6).get()) ==
               1 &&
           EVP_DigestVerifyUpdate(context.get(), data, signature.offset()) == 1 &&
           EVP_DigestVerifyFinal(context.get(), raw.data(), raw.size()) == 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = fileWith(data, size);
    if (path.empty()) {
        return 0;
    }
    BSContext context;
    const Result result = context.verifyFile(path, "fuzz");
    switch (result) {
    case BS_ERROR:
    case BS_NOT_SIGNED:
    case BS_SIGNATURE_INCORRECT: return 0;
    case BS_SIGNATURE_CORRECT: break;
    default: std::abort();
    }
    Signature signature;
    _ZolSigMeta meta{};
    if (!signature.loadFromFile(path, meta) || meta.sigType != 'P' || (meta.keyId != '5' && meta.keyId != '6') ||
        !opensslAgrees(data, signature, meta.keyId)) {
        std::abort();
    }
    return 0;
}
