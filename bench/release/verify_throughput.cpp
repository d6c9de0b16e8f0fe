// kzol verify and kzol audit over a release tree, timed against the floor
// measured in the same run:
//   small:  N signed scripts of about 400 bytes of content (page cache), with
//           -j 1 and -j 2, against the floor: SHA-256 of each signed region in
//           memory plus one RSA-2048 verify with a key parsed once, on one
//           thread, times the workers (also measured on two threads at once)
//   large:  M files of 1 MiB with -j 2, against SHA-256 in memory times two,
//           and (for comparison) against reading the same files from the page
//           cache and hashing them on two threads, which copying the bytes
//           out of the page cache bounds below the former
//   audit:  the same tree (as a staging root) with -j 2 against -j 1
//   memory: peak resident size of verify over a list of K names, and of audit
//   before: the library itself for every file (-v), as the tool used to work
// Every figure is the elapsed time of whole processes (the best of a few
// runs); each row prints its ratio and target, and the machine's load.
//
//   kzol_verify_bench [--files N] [--large M] [--list K] [--runs R] [--dir DIR]
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "run_process.h"

namespace {

using kzol_bench::Measure;
using kzol_bench::runProcess;

using Clock = std::chrono::steady_clock;

double threadCpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Runs `work` on `threads` threads for `budget` seconds, then sets `stop`
// and waits for them: the elapsed seconds.
template <typename Work> double runWorkers(unsigned threads, double budget, const Work& work, std::atomic<bool>& stop)
{
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t) {
        workers.emplace_back(work);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(budget));
    stop = true;
    for (std::thread& t : workers) {
        t.join();
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The best of `runs` runs (the least disturbed by the machine's other work),
// with the largest peak memory; the status of the last.
Measure best(const std::vector<std::string>& args, int runs)
{
    Measure b;
    b.seconds = 1e30;
    for (int r = 0; r < runs; ++r) {
        const Measure m = runProcess(args);
        if (m.seconds < b.seconds) {
            b.cpuSeconds = m.cpuSeconds;
        }
        b.seconds = std::min(b.seconds, m.seconds);
        b.peakKiB = std::max(b.peakKiB, m.peakKiB);
        b.status = m.status;
    }
    return b;
}

using PkeyPtr = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

PkeyPtr readKey(const std::string& path, bool isPrivate)
{
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) {
        return PkeyPtr(nullptr, EVP_PKEY_free);
    }
    EVP_PKEY* key =
        isPrivate ? PEM_read_PrivateKey(f, nullptr, nullptr, nullptr) : PEM_read_PUBKEY(f, nullptr, nullptr, nullptr);
    std::fclose(f);
    return PkeyPtr(key, EVP_PKEY_free);
}

std::string lengthField(std::size_t n)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const unsigned char be[4] = {static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                                 static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    const unsigned v0 = (be[0] << 16) | (be[1] << 8) | be[2];
    std::string out;
    for (int s = 18; s >= 0; s -= 6) {
        out += alphabet[(v0 >> s) & 63];
    }
    out += alphabet[(be[3] >> 2) & 63];
    out += alphabet[(be[3] << 4) & 63];
    out += "==";
    return out;
}

// A signed file's bytes: content, metadata "P50", text, length field, ":ZOL".
struct Signed {
    std::string bytes;
    std::size_t region = 0;
    std::vector<unsigned char> raw;
};

Signed sign(const std::string& content, EVP_PKEY* key)
{
    Signed s;
    const std::string region = content + "P50";
    MdCtxPtr ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::size_t length = 0;
    if (EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
        EVP_DigestSignUpdate(ctx.get(), region.data(), region.size()) == 1 &&
        EVP_DigestSignFinal(ctx.get(), nullptr, &length) == 1) {
        s.raw.resize(length);
        EVP_DigestSignFinal(ctx.get(), s.raw.data(), &length);
        s.raw.resize(length);
    }
    std::string text = "0x";
    for (unsigned char b : s.raw) {
        char hex[3];
        std::snprintf(hex, sizeof(hex), "%02x", b);
        text += hex;
    }
    s.bytes = region + text + lengthField(text.size()) + ":ZOL";
    s.region = region.size();
    return s;
}

// Seconds per file of the floor (SHA-256 of the region in memory, one
// verify with the parsed key) on each of `threads` threads at once, over
// about `budget` seconds; the CPU seconds per file in `cpuPerFile`.
double floorPerFile(const std::vector<Signed>& files, EVP_PKEY* key, unsigned threads, double budget,
                    double& cpuPerFile)
{
    std::atomic<long> done{0};
    std::atomic<long long> cpuNanoseconds{0};
    std::atomic<bool> stop{false};
    std::atomic<bool> wrong{false};
    const auto work = [&]() {
        const double cpuStart = threadCpuSeconds();
        MdCtxPtr ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        for (std::size_t i = 0; !stop; i = (i + 1) % files.size()) {
            const Signed& f = files[i];
            if (EVP_DigestInit(ctx.get(), EVP_sha256()) != 1 ||
                EVP_DigestUpdate(ctx.get(), f.bytes.data(), f.region) != 1 ||
                EVP_VerifyFinal(ctx.get(), f.raw.data(), static_cast<unsigned>(f.raw.size()), key) != 1) {
                wrong = true;
            }
            ++done;
        }
        cpuNanoseconds += static_cast<long long>((threadCpuSeconds() - cpuStart) * 1e9);
    };
    const double seconds = runWorkers(threads, budget, work, stop);
    if (wrong) {
        std::fprintf(stderr, "the floor's own verify failed\n");
    }
    cpuPerFile = static_cast<double>(cpuNanoseconds) * 1e-9 / static_cast<double>(done);
    return seconds * threads / static_cast<double>(done);
}

// Bytes per second of SHA-256 in memory on `threads` threads at once, all
// of them together.
double sha256Rate(unsigned threads, double budget, double& perCpuSecond)
{
    std::atomic<long> rounds{0};
    std::atomic<long long> cpuNanoseconds{0};
    std::atomic<bool> stop{false};
    const auto work = [&]() {
        const double cpuStart = threadCpuSeconds();
        std::vector<unsigned char> block(1 << 20, 0x5a);
        unsigned char digest[EVP_MAX_MD_SIZE];
        while (!stop) {
            EVP_Digest(block.data(), block.size(), digest, nullptr, EVP_sha256(), nullptr);
            ++rounds;
        }
        cpuNanoseconds += static_cast<long long>((threadCpuSeconds() - cpuStart) * 1e9);
    };
    const double seconds = runWorkers(threads, budget, work, stop);
    perCpuSecond = static_cast<double>(rounds) * (1 << 20) / (static_cast<double>(cpuNanoseconds) * 1e-9);
    return static_cast<double>(rounds) * (1 << 20) / seconds;
}

// Bytes per second of reading `names` from the page cache (pread, pieces of
// 128 KiB) and hashing them with SHA-256, on `threads` threads at once: the
// floor of any verifier of files that are not already in its own memory.
double pageCacheRate(const std::vector<std::string>& names, unsigned threads, double budget)
{
    std::atomic<long long> bytes{0};
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    const auto work = [&]() {
        std::vector<unsigned char> piece(128 << 10);
        unsigned char digest[EVP_MAX_MD_SIZE];
        MdCtxPtr ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        while (!stop) {
            const int fd = open(names[next++ % names.size()].c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || EVP_DigestInit(ctx.get(), EVP_sha256()) != 1) {
                return;
            }
            ssize_t got = 0;
            for (off_t at = 0; (got = pread(fd, piece.data(), piece.size(), at)) > 0; at += got) {
                (void)EVP_DigestUpdate(ctx.get(), piece.data(), static_cast<std::size_t>(got));
                bytes += got;
            }
            (void)EVP_DigestFinal(ctx.get(), digest, nullptr);
            close(fd);
        }
    };
    const double seconds = runWorkers(threads, budget, work, stop);
    return static_cast<double>(bytes) / seconds;
}

bool missed = false;

void row(const char* what, double value, const char* unit, double reference, double target)
{
    const double ratio = reference > 0 ? value / reference : 0;
    const bool ok = ratio >= target;
    std::printf("| %-40s | %12.0f %-7s | %12.0f | %6.2f | >= %.2f %-6s |\n", what, value, unit, reference, ratio,
                target, ok ? "ok" : "MISSED");
    missed = missed || !ok;
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string loadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

}  // namespace

int main(int argc, char** argv)
{
    int files = 10000, large = 100, listed = 100000, runs = 3;
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--files") {
            files = std::atoi(argv[i + 1]);
        } else if (option == "--large") {
            large = std::atoi(argv[i + 1]);
        } else if (option == "--list") {
            listed = std::atoi(argv[i + 1]);
        } else if (option == "--runs") {
            runs = std::atoi(argv[i + 1]);
        } else if (option == "--dir") {
            base = argv[i + 1];
        }
    }
    const std::string kzol = KZOL_TOOL;
    const std::string devKeys = std::string(KZOL_SOURCE_DIR) + "/keys/dev";
    const PkeyPtr privateKey = readKey(devKeys + "/private_key_5.pem", true);
    const PkeyPtr publicKey = readKey(devKeys + "/public_key_5.pem", false);
    if (!privateKey || !publicKey || files <= 0 || large <= 0 || runs <= 0) {
        std::fprintf(stderr, "usage: kzol_verify_bench [--files N] [--large M] [--list K] [--runs R] [--dir DIR]\n");
        return 2;
    }
    std::string root = base + "/kzol-verify-bench.XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        std::perror("mkdtemp");
        return 2;
    }
    // A staging root: the scripts under opt/, as the device would hold them.
    const std::string scripts = root + "/opt/scripts", bigDir = root + "/big";
    mkdir((root + "/opt").c_str(), 0755);
    mkdir(scripts.c_str(), 0755);
    mkdir(bigDir.c_str(), 0755);

    // 64 distinct signed scripts of 400 bytes of content, written over and
    // over: the work per file is the same whatever the content.
    std::vector<Signed> small;
    for (int i = 0; i < 64; ++i) {
        std::string content = "#!/bin/sh\n# release step " + std::to_string(i) + "\n";
        content += std::string(400 - 1 - content.size(), '#') + "\n";
        small.push_back(sign(content, privateKey.get()));
    }
    const std::string list = root + "/list", longList = root + "/long-list", bigList = root + "/big-list";
    {
        std::ofstream out(list), longOut(longList);
        for (int i = 0; i < files; ++i) {
            const std::string name = scripts + "/step" + std::to_string(i) + ".sh";
            writeFile(name, small[static_cast<std::size_t>(i) % small.size()].bytes);
            out << name << "\n";
        }
        for (int i = 0; i < listed; ++i) {
            longOut << scripts << "/step" << (i % files) << ".sh\n";
        }
    }
    std::string mib(1 << 20, '\0');
    for (std::size_t i = 0; i < mib.size(); ++i) {
        mib[i] = static_cast<char>((i * 2654435761U) >> 13);
    }
    const Signed bigSigned = sign(mib, privateKey.get());
    {
        std::ofstream out(bigList);
        for (int i = 0; i < large; ++i) {
            const std::string name = bigDir + "/big" + std::to_string(i) + ".bin";
            writeFile(name, bigSigned.bytes);
            out << name << "\n";
        }
    }
    const std::string pubkey = "5=" + devKeys + "/public_key_5.pem";
    // Read once, so that every run finds them in the page cache.
    runProcess({kzol, "verify", "-q", "--pubkey", pubkey, "--from", list});
    runProcess({kzol, "verify", "-q", "--pubkey", pubkey, "--from", bigList});

    std::printf("kzol verify / audit throughput: %d scripts of %zu bytes, %d files of 1 MiB, in %s; load %s\n", files,
                small[0].bytes.size(), large, base.c_str(), loadAverage().c_str());
    double cpu1 = 0, cpu2 = 0;
    const double floor1 = floorPerFile(small, publicKey.get(), 1, 1.0, cpu1);
    const double floor2 = floorPerFile(small, publicKey.get(), 2, 1.0, cpu2);
    double shaCpu = 0, shaCpu2 = 0;
    const double sha1 = sha256Rate(1, 0.5, shaCpu), sha2 = sha256Rate(2, 0.5, shaCpu2);
    std::printf("floor: %.1f us per file on one thread (%.0f files/s; %.1f us of CPU), %.1f us per file and thread on "
                "two at once; SHA-256 %.0f MB/s on one thread, %.0f MB/s on two\n",
                floor1 * 1e6, 1 / floor1, cpu1 * 1e6, floor2 * 1e6, sha1 * 1e-6, sha2 * 1e-6);
    std::printf("| %-40s | %20s | %12s | %6s | %-16s |\n", "row", "measured", "reference", "ratio", "target");
    std::printf("|------------------------------------------|----------------------|--------------|--------|-----------"
                "-------|\n");

    const auto verify = [&](const char* jobs, const std::string& from) {
        return best({kzol, "verify", "-q", "-j", jobs, "--pubkey", pubkey, "--from", from}, runs);
    };
    const Measure one = verify("1", list), two = verify("2", list);
    const double filesOne = files / one.seconds, filesTwo = files / two.seconds;
    row("verify -j 1, small files (files/s)", filesOne, "files/s", 1 / floor1, 0.40);
    row("verify -j 2, small files (files/s)", filesTwo, "files/s", 2 / floor1, 0.40);
    row("verify -j 2 against two-thread floor", filesTwo, "files/s", 2 / floor2, 0.40);
    std::printf("| %-40s | %12.1f %-7s | %12.1f | %6.2f | (any load)       |\n", "verify -j 1: CPU per file (us)",
                one.cpuSeconds / files * 1e6, "us", cpu1 * 1e6, cpu1 / (one.cpuSeconds / files));
    const Measure big = verify("2", bigList);
    std::vector<std::string> bigNames;
    for (int i = 0; i < large; ++i) {
        bigNames.push_back(bigDir + "/big" + std::to_string(i) + ".bin");
    }
    const double fromCache = pageCacheRate(bigNames, 2, 1.0);
    const double megabytes = static_cast<double>(large) * static_cast<double>(bigSigned.region) / 1e6;
    row("verify -j 2, 1 MiB files (MB/s)", megabytes / big.seconds, "MB/s", 2 * sha1 * 1e-6, 0.80);
    row("verify -j 2, 1 MiB, two-thread SHA-256", megabytes / big.seconds, "MB/s", sha2 * 1e-6, 0.80);
    std::printf("| %-40s | %12.0f %-7s | %12.0f | %6.2f | (for comparison) |\n",
                "verify -j 2, 1 MiB, read + SHA-256 floor", megabytes / big.seconds, "MB/s", fromCache * 1e-6,
                megabytes / big.seconds / (fromCache * 1e-6));
    std::printf("| %-40s | %12.0f %-7s | %12.0f | %6.2f | (any load)       |\n",
                "verify -j 2, 1 MiB: MB per CPU second", megabytes / big.cpuSeconds, "MB/s", sha1 * 1e-6,
                megabytes / big.cpuSeconds / (sha1 * 1e-6));

    const auto audit = [&](const char* jobs) {
        return best({kzol, "audit", "-q", "-j", jobs, "--pubkey", pubkey, "--root", root, "/opt"}, runs);
    };
    const Measure auditOne = audit("1"), auditTwo = audit("2");
    row("audit -j 2 against -j 1 (files/s)", files / auditTwo.seconds, "files/s", files / auditOne.seconds, 1.60);
    std::printf("| %-40s | %12.1f %-7s | %12.1f | %6.2f | (any load)       |\n",
                "audit: CPU per file, -j 2 against -j 1", auditTwo.cpuSeconds / files * 1e6, "us",
                auditOne.cpuSeconds / files * 1e6, auditOne.cpuSeconds / auditTwo.cpuSeconds);
    std::printf("| %-40s | %12.0f %-7s | %12.0f | %6.2f | (for comparison) |\n", "verify -j 2 against -j 1", filesTwo,
                "files/s", filesOne, filesTwo / filesOne);
    std::printf("| %-40s | %12.1f %-7s | %12.1f | %6.2f | (any load)       |\n",
                "verify: CPU per file, -j 2 against -j 1", two.cpuSeconds / files * 1e6, "us",
                one.cpuSeconds / files * 1e6, one.cpuSeconds / two.cpuSeconds);

    const Measure longRun = best({kzol, "verify", "-q", "-j", "2", "--pubkey", pubkey, "--from", longList}, 1);
    std::printf("| %-40s | %12.1f %-7s | %12.1f | %6s | <= 32 MiB %-6s |\n",
                ("verify, " + std::to_string(listed) + " names: peak memory").c_str(), longRun.peakKiB / 1024.0, "MiB",
                32.0, "", longRun.peakKiB <= 32 * 1024 ? "ok" : "MISSED");
    std::printf("| %-40s | %12.1f %-7s | %12.1f | %6s | <= 32 MiB %-6s |\n", "audit -j 2: peak memory",
                auditTwo.peakKiB / 1024.0, "MiB", 32.0, "", auditTwo.peakKiB <= 32 * 1024 ? "ok" : "MISSED");
    missed = missed || longRun.peakKiB > 32 * 1024 || auditTwo.peakKiB > 32 * 1024;
    const Measure before = best({kzol, "-v", "verify", "-q", "-j", "1", "--pubkey", pubkey, "--from", list}, 1);
    std::printf("| %-40s | %12.0f %-7s | %12.0f | %6.2f | (for comparison) |\n", "library per file (-v), -j 1",
                files / before.seconds, "files/s", filesOne, (files / before.seconds) / filesOne);
    const bool allRan = one.status == 0 && two.status == 0 && big.status == 0 && auditOne.status == 0 &&
                        auditTwo.status == 0 && longRun.status == 0 && before.status == 0;
    std::printf("load after: %s\n", loadAverage().c_str());
    if (!allRan) {
        std::printf("some run did not verify every file (statuses %d %d %d %d %d %d %d)\n", one.status, two.status,
                    big.status, auditOne.status, auditTwo.status, longRun.status, before.status);
    }
    const std::string cleanup = "rm -rf '" + root + "'";
    if (std::system(cleanup.c_str()) != 0) {
        std::fprintf(stderr, "could not remove %s\n", root.c_str());
    }
    return allRan && !missed ? 0 : 1;
}
