// Families "entry", "report" and "threads": the exported entry points as a
// platform component calls them, on a television emulated from a device
// profile, with a listener in the daemon's place that signals each report it
// has received whole.
//
//   entry/outside            verifyFileWihtoutKey on a file outside the areas
//   entry/access_realpath    access + realpath of the same path
//   entry/other_device       a file in an area on a device that is not a television
//   entry/signed             the signed 4 KiB file in an area on a television
//   entry/refused            its copy with one byte changed: refused, report delivered
//   entry/verify_and_report  BSContext::verifyFile of that copy, then one
//                            SendSecurityReport, delivered
//   report/round_trip        SendSecurityReport until the listener has the report
//   threads/signed           entry/signed on 1 and on 2 threads at once
//   threads/key_load         VerifyContext::loadPublicKey alone, 1 and 2 threads
//   descriptor/by_name/N     verifyFileDescriptor on a signed file of N content
//                            bytes in an area (area test by its name)
//   descriptor/open_file/N   verifyOpenFile on the same open file (area test
//                            from the open file itself)
//
// All but the descriptor family are timed in elapsed time: reports wait for
// the listener.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "bs_context.h"
#include "kZOLUser.h"
#include "verify_context.h"

namespace kzol_bench {
namespace {

// Accepts the library's connections on the daemon's name, reads each to its
// end, and then writes one byte to a pipe: a benchmark that reads that byte
// knows its report arrived.
class Listener {
public:
    bool start()
    {
        m_socket.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{AF_UNIX, {}};
        std::memcpy(address.sun_path + 1, "SfDaemon/UserMsg", 16);
        int ends[2] = {-1, -1};
        if (!m_socket || bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(m_socket.get(), 64) != 0 || pipe2(ends, O_CLOEXEC) != 0) {
            return false;
        }
        m_pipe[0].reset(ends[0]);
        m_pipe[1].reset(ends[1]);
        m_thread = std::thread([this] { serve(); });
        return true;
    }
    ~Listener()
    {
        if (m_thread.joinable()) {
            shutdown(m_socket.get(), SHUT_RDWR);
            m_thread.join();
        }
    }
    bool delivered() const
    {
        char byte = 0;
        return read(m_pipe[0].get(), &byte, 1) == 1;
    }

private:
    void serve()
    {
        for (UniqueFd connection;
             connection.reset(accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC)), connection;) {
            char buffer[4096];
            std::size_t total = 0;
            for (ssize_t n; (n = read(connection.get(), buffer, sizeof(buffer))) > 0;) {
                total += static_cast<std::size_t>(n);
            }
            connection.reset();
            const char byte = total > 0 ? 1 : 0;
            if (write(m_pipe[1].get(), &byte, 1) != 1) {
                return;
            }
        }
    }

    UniqueFd m_socket;
    UniqueFd m_pipe[2];
    std::thread m_thread;
};

Listener& listener()
{
    static Listener instance;
    return instance;
}

// The device the emulation shows: set by each benchmark's setup, which runs
// before its threads start.
std::string g_televisionProfile, g_otherDeviceProfile;
void onTelevision(const benchmark::State&)
{
    setenv("KZOL_PROFILE", g_televisionProfile.c_str(), 1);
}
void onOtherDevice(const benchmark::State&)
{
    setenv("KZOL_PROFILE", g_otherDeviceProfile.c_str(), 1);
}

void entryCall(benchmark::State& state, const std::string& path, int answer, bool reported)
{
    for (auto _ : state) {
        if (verifyFileWihtoutKey(path.c_str(), "bench") != answer || (reported && !listener().delivered())) {
            state.SkipWithError("unexpected answer, or the report did not arrive");
            break;
        }
    }
}

// The two descriptor entry points on one open file.
void descriptorCall(benchmark::State& state, const std::string& path, bool byObject)
{
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    for (auto _ : state) {
        const int answer = byObject ? verifyOpenFile(fd.get(), "bench", nullptr)
                                    : verifyFileDescriptor(fd.get(), path.c_str(), "bench");
        if (answer != 1) {
            state.SkipWithError("the signed file was refused");
            break;
        }
    }
}

// Signed files of the workspace copied into its area, removed at exit.
std::vector<std::string> g_areaCopies;

void removeAreaCopies()
{
    for (const std::string& path : g_areaCopies) {
        (void)unlink(path.c_str());
    }
}

std::string areaCopy(const Workspace& workspace, const SignedFile& file)
{
    const std::string path = workspace.areaDirectory() + "/signed-" + std::to_string(file.contentSize) + ".sh";
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd || write(fd.get(), file.bytes.data(), file.bytes.size()) != static_cast<ssize_t>(file.bytes.size())) {
        std::fprintf(stderr, "kzol_bench: cannot write %s\n", path.c_str());
        std::exit(1);
    }
    if (g_areaCopies.empty()) {
        (void)std::atexit(removeAreaCopies);
    }
    g_areaCopies.push_back(path);
    return path;
}

void registerEntry(const Workspace& workspace)
{
    if (!listener().start()) {
        std::fprintf(stderr, "kzol_bench: cannot listen on the daemon's name: %s\n", std::strerror(errno));
        std::exit(1);
    }
    g_televisionProfile = workspace.televisionProfile();
    g_otherDeviceProfile = workspace.otherDeviceProfile();
    const std::string outside = workspace.file(contentSizes().front())->path,
                      signedFile = workspace.areaDirectory() + "/signed.sh",
                      tampered = workspace.areaDirectory() + "/tampered.sh";
    const auto timed = [](benchmark::internal::Benchmark* bench) {
        return bench->Unit(benchmark::kMicrosecond)->UseRealTime()->Setup(onTelevision);
    };
    timed(benchmark::RegisterBenchmark("entry/outside", entryCall, outside, 1, false));
    timed(benchmark::RegisterBenchmark("entry/access_realpath", [=](benchmark::State& state) {
        char resolved[PATH_MAX + 1];
        for (auto _ : state) {
            if (access(outside.c_str(), F_OK) != 0 || realpath(outside.c_str(), resolved) == nullptr) {
                state.SkipWithError("access or realpath failed");
                break;
            }
            benchmark::DoNotOptimize(resolved);
        }
    }));
    timed(benchmark::RegisterBenchmark("entry/other_device", entryCall, signedFile, 1, false))->Setup(onOtherDevice);
    timed(benchmark::RegisterBenchmark("entry/signed", entryCall, signedFile, 1, false));
    timed(benchmark::RegisterBenchmark("entry/refused", entryCall, tampered, 0, true));
    timed(benchmark::RegisterBenchmark("entry/verify_and_report", [=](benchmark::State& state) {
        for (auto _ : state) {
            if (BSContext().verifyFile(tampered, "bench") != BS_SIGNATURE_INCORRECT ||
                SendSecurityReport("bench", "SCRIPT", tampered.c_str(), "refused", 1) != 0 || !listener().delivered()) {
                state.SkipWithError("verification, report or its delivery failed");
                break;
            }
        }
    }));
    timed(benchmark::RegisterBenchmark("report/round_trip", [=](benchmark::State& state) {
        for (auto _ : state) {
            if (SendSecurityReport("bench", "SCRIPT", tampered.c_str(), "refused", 1) != 0 || !listener().delivered()) {
                state.SkipWithError("the report did not arrive");
                break;
            }
        }
    }));
    for (const std::size_t size : {contentSizes()[0], contentSizes()[2]}) {
        const std::string copy = areaCopy(workspace, *workspace.file(size));
        timed(benchmark::RegisterBenchmark(("descriptor/by_name/" + std::to_string(size)).c_str(), descriptorCall, copy,
                                           false));
        timed(benchmark::RegisterBenchmark(("descriptor/open_file/" + std::to_string(size)).c_str(), descriptorCall,
                                           copy, true));
    }
    // Each thread checks the same file; the figure is the time per call on
    // each thread, so two threads scale perfectly when it stays the same.
    timed(benchmark::RegisterBenchmark("threads/signed", entryCall, signedFile, 1, false))->Threads(1)->Threads(2);
    // The part of every check that OpenSSL serialises: the key text parsed
    // into a key (the library parses it for each file it verifies).
    const std::string pem = workspace.publicKeyPem();
    timed(benchmark::RegisterBenchmark(
              "threads/key_load",
              [pem](benchmark::State& state) {
        for (auto _ : state) {
            VerifyContext context;
            if (!context.loadPublicKey(pem)) {
                state.SkipWithError("the key did not load");
                break;
            }
        }
              }))
        ->Threads(1)
        ->Threads(2);
}

const Family c_entryFamily("entry", registerEntry);

}  // namespace
}  // namespace kzol_bench
