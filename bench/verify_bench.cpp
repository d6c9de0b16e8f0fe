// Family "verify": BSContext::verifyFile against the same job done with plain
// OpenSSL, and against the two computations that no verifier can avoid.
//
//   verify/library/<size>      the library, file on disk (page cache)
//   verify/openssl/<size>      plain OpenSSL on the same file
//   verify/sha256_only/<size>  SHA-256 over the signed region in memory
//   verify/rsa_verify_only     one RSA PKCS#1 v1.5 verify of a ready digest
//
// <size> is the content size; the signed region is 3 bytes longer.
#include <benchmark/benchmark.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_support.h"
#include "bs_context.h"

namespace kzol_bench {
namespace {

const SignedFile* fileFor(benchmark::State& state, const Workspace& workspace)
{
    const SignedFile* file = workspace.file(static_cast<std::size_t>(state.range(0)));
    if (file == nullptr) {
        state.SkipWithError("no signed file of this size");
    }
    return file;
}

void setRegionBytes(benchmark::State& state, const SignedFile& file)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(file.offset));
}

void library(benchmark::State& state, const Workspace& workspace)
{
    const SignedFile* file = fileFor(state, workspace);
    if (file == nullptr) {
        return;
    }
    for (auto _ : state) {
        BSContext context;
        const Result result = context.verifyFile(file->path, "bench");
        if (result != BS_SIGNATURE_CORRECT) {
            state.SkipWithError("verifyFile did not answer BS_SIGNATURE_CORRECT");
            break;
        }
    }
    setRegionBytes(state, *file);
}

// The same job done with plain OpenSSL on the same file: read the signed
// region in 64 KiB pieces while hashing it, read the block that follows, parse
// the key text (the library keeps no key between calls), decode the MPI text,
// one RSA verify.
void plainOpenssl(benchmark::State& state, const Workspace& workspace)
{
    const SignedFile* file = fileFor(state, workspace);
    if (file == nullptr) {
        return;
    }
    const std::string& pem = workspace.publicKeyPem();
    const std::size_t blockSize = file->bytes.size() - file->offset;
    std::vector<unsigned char> buffer(std::max<std::size_t>(65536, blockSize));
    for (auto _ : state) {
        const UniqueFd file_fd(open(file->path.c_str(), O_RDONLY | O_CLOEXEC));
        const int fd = file_fd.get();
        const EvpMdCtxPtr ctx(EVP_MD_CTX_new());
        bool ok = fd >= 0 && ctx && EVP_DigestInit(ctx.get(), EVP_sha256()) == 1;
        for (std::size_t remaining = file->offset; ok && remaining > 0;) {
            const std::size_t n = std::min(remaining, buffer.size());
            ok = read(fd, buffer.data(), n) == static_cast<ssize_t>(n) &&
                 EVP_DigestUpdate(ctx.get(), buffer.data(), n) == 1;
            remaining -= n;
        }
        ok = ok && read(fd, buffer.data(), blockSize) == static_cast<ssize_t>(blockSize);
        const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        const EvpPkeyPtr key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
        std::vector<unsigned char> raw;
        if (!ok || !key || !decodeMpiText(reinterpret_cast<const char*>(buffer.data()), file->mpiText.size(), raw) ||
            EVP_VerifyFinal(ctx.get(), raw.data(), static_cast<unsigned int>(raw.size()), key.get()) != 1) {
            state.SkipWithError("plain OpenSSL verification failed");
            break;
        }
    }
    setRegionBytes(state, *file);
}

void sha256Only(benchmark::State& state, const Workspace& workspace)
{
    const SignedFile* file = fileFor(state, workspace);
    if (file == nullptr) {
        return;
    }
    unsigned char digest[SHA256_DIGEST_LENGTH];
    for (auto _ : state) {
        if (EVP_Digest(file->bytes.data(), file->offset, digest, nullptr, EVP_sha256(), nullptr) != 1) {
            state.SkipWithError("SHA-256 failed");
            break;
        }
        benchmark::DoNotOptimize(digest);
    }
    setRegionBytes(state, *file);
}

// The key is parsed and the digest computed before the loop; each iteration is
// one verification context and one RSA public-key operation.
void rsaVerifyOnly(benchmark::State& state, const Workspace& workspace)
{
    const SignedFile* file = workspace.file(contentSizes().front());
    const std::string& pem = workspace.publicKeyPem();
    const BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const EvpPkeyPtr key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    unsigned char digest[SHA256_DIGEST_LENGTH];
    if (file == nullptr || !key ||
        EVP_Digest(file->bytes.data(), file->offset, digest, nullptr, EVP_sha256(), nullptr) != 1) {
        state.SkipWithError("setup failed");
        return;
    }
    for (auto _ : state) {
        const EvpPkeyCtxPtr ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
        if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1 ||
            EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) <= 0 ||
            EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha256()) <= 0 ||
            EVP_PKEY_verify(ctx.get(), file->rawSignature.data(), file->rawSignature.size(), digest, sizeof(digest)) !=
                1) {
            state.SkipWithError("RSA verification failed");
            break;
        }
    }
}

// Timed by the benchmark's default, the thread's CPU time, which counts the
// kernel time of its reads as well. Nothing here blocks (the files sit in the
// page cache), so on an idle machine it equals the elapsed time, and on a busy
// one it is not inflated by other processes' turns on the processor.
void registerVerify(const Workspace& workspace)
{
    using Fn = void (*)(benchmark::State&, const Workspace&);
    const struct {
        const char* name;
        Fn fn;
    } perSize[] = {
        {"verify/library", library},
        {"verify/openssl", plainOpenssl},
        {"verify/sha256_only", sha256Only},
    };
    for (const auto& entry : perSize) {
        auto* bench = benchmark::RegisterBenchmark(entry.name, entry.fn, std::cref(workspace));
        for (std::size_t size : contentSizes()) {
            bench->Arg(static_cast<std::int64_t>(size));
        }
        bench->Unit(benchmark::kMicrosecond);
    }
    benchmark::RegisterBenchmark("verify/rsa_verify_only", rsaVerifyOnly, std::cref(workspace))
        ->Unit(benchmark::kMicrosecond);
}

const Family c_verifyFamily("verify", registerVerify);

}  // namespace
}  // namespace kzol_bench
