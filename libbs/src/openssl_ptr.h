// Owners of OpenSSL objects: each is released with its own free function on
// every way out of the scope that holds it.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

struct EvpPkeyFree {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct EvpPkeyCtxFree {
    void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
};
struct EvpMdCtxFree {
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct BioFree {
    void operator()(BIO* p) const { BIO_free_all(p); }
};
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyFree>;
using EvpPkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, EvpPkeyCtxFree>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
