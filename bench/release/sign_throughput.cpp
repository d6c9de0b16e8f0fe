// kzol sign as a release engineer uses it, timed against its baselines:
//   batch:     N small scripts in one call (one worker) against N calls of one file each
//   workers:   the same call with two workers against one, on disk and in memory (/dev/shm)
//   streaming: one large file against `openssl dgst -sha256 -sign` on the same file,
//              with the peak resident memory of each; in memory (/dev/shm), and on
//              the disk under DIR, where copying it and flushing the copy is the floor
// Every figure is the elapsed time of whole processes (the median of a few
// runs); each row prints its ratio and target.
//
//   kzol_sign_bench [--files N] [--large-mib M] [--runs R] [--dir DIR]
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "run_process.h"

namespace {

using kzol_bench::Measure;
using kzol_bench::runProcess;

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

bool failedRun = false;

void row(const char* what, double value, const char* against, double reference, const char* target, bool ok)
{
    std::printf("| %-34s | %9.3f | %-30s | %9.3f | %6.2f | %-8s %s |\n", what, value, against, reference,
                reference / value, target, ok ? "ok" : "MISSED");
    failedRun = failedRun || !ok;
}

void removeTree(const std::string& dir)
{
    const std::string cleanup = "rm -rf '" + dir + "'";
    if (std::system(cleanup.c_str()) != 0) {
        std::fprintf(stderr, "could not remove %s\n", dir.c_str());
    }
}

// One large file signed in place (`kzol sign --force`, so each run re-signs
// it) and signed by openssl, side by side; and, as the floor on a disk, a
// copy of it written and flushed.
struct Large {
    bool inMemory = false;
    bool allSigned = true;
    std::vector<double> kzol, openssl, flushedCopy;
    long peakKiB = 0, opensslPeakKiB = 0;
};

Large measureLarge(const std::string& dir, long mib, int runs, const std::string& kzol, const std::string& key)
{
    Large l;
    const std::string big = dir + "/large.bin";
    {
        std::string block(1 << 20, '\0');
        for (std::size_t i = 0; i < block.size(); ++i) {
            block[i] = static_cast<char>(i * 2654435761U >> 13);
        }
        std::ofstream out(big, std::ios::binary | std::ios::trunc);
        for (long i = 0; i < mib; ++i) {
            block[0] = static_cast<char>(i);
            out.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
    }
    // Its writing done before the first figure.
    runProcess({"/bin/sync", big});
    for (int r = 0; r < runs; ++r) {
        const Measure o =
            runProcess({"/usr/bin/openssl", "dgst", "-sha256", "-sign", key, "-out", dir + "/large.sig", big});
        const Measure k = runProcess({kzol, "sign", "--force", "--key", key, "--key-id", "5", big});
        const Measure c =
            runProcess({"/bin/dd", "if=" + big, "of=" + dir + "/copy.bin", "bs=1M", "conv=fsync", "status=none"});
        ::unlink((dir + "/copy.bin").c_str());
        l.allSigned = l.allSigned && o.status == 0 && k.status == 0 && c.status == 0;
        l.openssl.push_back(o.seconds);
        l.kzol.push_back(k.seconds);
        l.flushedCopy.push_back(c.seconds);
        l.opensslPeakKiB = std::max(l.opensslPeakKiB, o.peakKiB);
        l.peakKiB = std::max(l.peakKiB, k.peakKiB);
    }
    return l;
}

// N small scripts signed in one call by one worker and by two, and (with
// `separate`) by N calls of one file each.
struct Batch {
    bool allSigned = true;
    std::vector<double> separate, one, two;
};

Batch measureBatch(const std::string& dir, int files, int runs, const std::string& kzol, const std::string& key,
                   bool separate)
{
    Batch b;
    const std::string list = dir + "/list";
    std::vector<std::string> names;
    {
        std::ofstream out(list);
        for (int i = 0; i < files; ++i) {
            names.push_back(dir + "/script" + std::to_string(i) + ".sh");
            out << names.back() << "\n";
        }
    }
    const auto freshScripts = [&]() {
        for (std::size_t i = 0; i < names.size(); ++i) {
            writeFile(names[i], "#!/bin/sh\n# release script " + std::to_string(i) + "\necho \"step " +
                                    std::to_string(i) + "\"\nexit 0\n");
        }
        runProcess({"/bin/sync"});  // their writing done before the figure
    };
    for (int r = 0; r < runs; ++r) {
        if (separate) {
            freshScripts();
            const auto start = std::chrono::steady_clock::now();
            for (const std::string& name : names) {
                b.allSigned =
                    runProcess({kzol, "sign", "--key", key, "--key-id", "5", name}).status == 0 && b.allSigned;
            }
            b.separate.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        freshScripts();
        const Measure j1 = runProcess({kzol, "sign", "--key", key, "--key-id", "5", "-j", "1", "--from", list});
        freshScripts();
        const Measure j2 = runProcess({kzol, "sign", "--key", key, "--key-id", "5", "-j", "2", "--from", list});
        b.allSigned = b.allSigned && j1.status == 0 && j2.status == 0;
        b.one.push_back(j1.seconds);
        b.two.push_back(j2.seconds);
    }
    return b;
}

}  // namespace

int main(int argc, char** argv)
{
    int files = 500;
    long largeMiB = 1024;
    int runs = 3;
    std::string base = std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "/tmp";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--files") == 0) {
            files = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--large-mib") == 0) {
            largeMiB = std::atol(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--runs") == 0) {
            runs = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--dir") == 0) {
            base = argv[i + 1];
        }
    }
    std::string dir = base + "/kzol-sign-bench-XXXXXX";
    if (mkdtemp(dir.data()) == nullptr) {
        std::perror("mkdtemp");
        return 2;
    }
    const std::string kzol = KZOL_TOOL;
    const std::string key = std::string(KZOL_SOURCE_DIR) + "/keys/dev/private_key_5.pem";
    // In memory (/dev/shm) no device's latency is part of the figures.
    std::string memory = "/dev/shm/kzol-sign-bench-XXXXXX";
    const bool haveMemory = mkdtemp(memory.data()) != nullptr;

    const Batch batch = measureBatch(dir, files, runs, kzol, key, true);
    Batch memoryBatch;
    if (haveMemory) {
        memoryBatch = measureBatch(memory, files, runs, kzol, key, false);
    }
    bool allSigned = batch.allSigned && memoryBatch.allSigned;

    // The large file on the disk under DIR, and in memory (/dev/shm) where
    // no device bounds the copy that the atomic replace writes and flushes.
    std::vector<Large> larges;
    if (largeMiB > 0) {
        larges.push_back(measureLarge(dir, largeMiB, runs, kzol, key));
        if (haveMemory) {
            larges.push_back(measureLarge(memory, largeMiB, runs, kzol, key));
            larges.back().inMemory = true;
        }
    }
    if (haveMemory) {
        removeTree(memory);
    }

    std::printf("kzol sign: %d small scripts, %ld MiB file, median of %d runs (seconds)\n", files, largeMiB, runs);
    std::printf("| %-34s | %9s | %-30s | %9s | %6s | %-11s |\n", "what", "s", "against", "s", "gain", "target");
    row("one call, 1 worker", median(batch.one), "one call per file", median(batch.separate), ">= 10",
        median(batch.separate) >= 10 * median(batch.one));
    // On a disk the renames that replace files go one at a time in the kernel.
    std::printf("| %-34s | %9.3f | %-30s | %9.3f | %6.2f | %-11s |\n", "one call, 2 workers, on disk",
                median(batch.two), "one call, 1 worker, on disk", median(batch.one),
                median(batch.one) / median(batch.two), "(disk)");
    if (haveMemory) {
        row("one call, 2 workers, in memory", median(memoryBatch.two), "one call, 1 worker, in memory",
            median(memoryBatch.one), ">= 1.6", median(memoryBatch.one) >= 1.6 * median(memoryBatch.two));
    }
    for (const Large& l : larges) {
        allSigned = allSigned && l.allSigned;
        if (l.inMemory) {
            row("large file in memory, kzol sign", median(l.kzol), "openssl dgst -sha256 -sign", median(l.openssl),
                ">= 0.67", median(l.kzol) <= 1.5 * median(l.openssl));
        } else {
            // On a disk the copy must reach the device before it takes the
            // file's name: the floor is hashing plus writing and flushing it.
            std::printf("| %-34s | %9.3f | %-30s | %9.3f | %6.2f | %-11s |\n", "large file on disk, kzol sign",
                        median(l.kzol), "openssl dgst -sha256 -sign", median(l.openssl),
                        median(l.openssl) / median(l.kzol), "(disk)");
            row("large file on disk, kzol sign", median(l.kzol), "openssl, then copy + fsync",
                median(l.openssl) + median(l.flushedCopy), ">= 0.67",
                median(l.kzol) <= 1.5 * (median(l.openssl) + median(l.flushedCopy)));
        }
        const bool bounded = l.peakKiB <= 32 * 1024;
        std::printf("| %-34s | %6ld KiB | %-30s | %6ld KiB |        | <= 32 MiB %s |\n",
                    l.inMemory ? "large file in memory, peak memory" : "large file on disk, peak memory", l.peakKiB,
                    "openssl dgst -sha256 -sign", l.opensslPeakKiB, bounded ? "ok" : "MISSED");
        failedRun = failedRun || !bounded;
    }
    if (!allSigned) {
        std::printf("some signing run failed\n");
    }
    removeTree(dir);
    return allSigned && !failedRun ? 0 : 1;
}
