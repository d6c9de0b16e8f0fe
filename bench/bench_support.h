// Shared pieces of the benchmark program: the workspace of signed files that
// every family measures against, OpenSSL handles, and the registry through
// which each family (one bench/*.cpp) adds its benchmarks.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include "handles.h"
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kzol_bench {

using ::BioPtr;
using ::EvpMdCtxPtr;
using ::EvpPkeyCtxPtr;
using ::EvpPkeyPtr;

// Content sizes of the signed files, in bytes: 4 KiB, 64 KiB, 1 MiB, 16 MiB.
const std::vector<std::size_t>& contentSizes();

// One signed file on disk and its bytes in memory.
struct SignedFile {
    std::size_t contentSize = 0;
    std::string path;
    std::string bytes;                        // the whole file
    std::size_t offset = 0;                   // length of the signed region (content + metadata)
    std::string mpiText;                      // "0x" and the hexadecimal digits, as in the file
    std::vector<unsigned char> rawSignature;  // the 256 bytes the text encodes
};

// The signed files, in a fresh directory under /dev/shm (else $TMPDIR, else
// /tmp), each read back once so that it sits in the page cache. Everything is
// removed on destruction, and by SIGINT/SIGTERM/SIGHUP while it exists.
class Workspace {
public:
    Workspace() = default;
    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    // Signs one file per content size with development private key 5 (type
    // 'P', selector '5'). False, with `error` set, when anything fails.
    bool create(std::string& error);

    const std::string& directory() const { return m_directory; }
    // A directory in a user-writable area (under /tmp) holding "signed.sh",
    // the signed file of the smallest size, and "tampered.sh", the same with
    // one content byte changed.
    const std::string& areaDirectory() const { return m_areaDirectory; }
    // Device profiles for the emulation library (KZOL_PROFILE): a television
    // (micom module, a non-root process outside any container, USB service up
    // with nothing attached), and a device without the micom module.
    const std::string& televisionProfile() const { return m_televisionProfile; }
    const std::string& otherDeviceProfile() const { return m_otherDeviceProfile; }
    const SignedFile* file(std::size_t contentSize) const;
    // The key text the library verifies these files with (public key 5).
    const std::string& publicKeyPem() const { return m_publicKeyPem; }
    // Private key 5, for families that sign other data.
    EVP_PKEY* privateKey() const { return m_privateKey.get(); }

private:
    bool createArea(std::string& error);

    std::string m_directory, m_areaDirectory, m_televisionProfile, m_otherDeviceProfile;
    std::vector<std::string> m_extraPaths;  // removed backwards: files before their directories
    std::vector<SignedFile> m_files;
    std::string m_publicKeyPem;
    EvpPkeyPtr m_privateKey;
};

// A family registers its benchmarks from the workspace; main calls every
// registered family once the workspace exists. A new family is a new .cpp in
// bench/ holding `static const kzol_bench::Family f("name", registerFn);`.
using RegisterFn = std::function<void(const Workspace&)>;
class Family {
public:
    Family(const char* name, RegisterFn registerFn);
};
void registerAllFamilies(const Workspace& workspace);

// Raw bytes of an MPI text ("0x" + hex digits). False for a malformed text.
bool decodeMpiText(const char* text, std::size_t length, std::vector<unsigned char>& raw);

}  // namespace kzol_bench
