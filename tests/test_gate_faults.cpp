// The television test, and the two policy steps that fail open under faults,
// on an emulated television: a /proc/modules that exists but cannot be opened
// or read, and an existing file whose real path cannot be resolved. The default build
// keeps the described answers (the file runs unchecked); the KZOL_FAIL_CLOSED
// build holds the gate. Every row states both answers.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "daemon.h"
#include "device.h"
#include "handles.h"
#include "kZOLUser.h"
#include "main.h"

using namespace kzol_test;

namespace {

constexpr bool c_failClosed = KZOL_FAIL_CLOSED != 0;
const std::string c_script = "#!/bin/sh\necho unsigned\n";

}  // namespace

// The television test reads /proc/modules in five-character pieces; one that
// exists but cannot be opened or read fails open in the default build.
TEST(GateFaults, ModulesFile)
{
    const TempDir dir("/tmp");
    const std::string file = std::filesystem::canonical(dir.path()).string() + "/unsigned.sh";
    writeFile(file, c_script);
    struct Row {
        const char* name;
        const char* modules;  // null: none, or made by `make` (a link to itself fails to open for root too)
        bool television;      // IsDTV's answer, and whether the file is then checked
        Lines lines;          // IsDTV's lines
        int (*make)(const char* path) = nullptr;
    };
    const Row rows[] = {
        {"a name that begins so", "sdp_gpio 16384 0 - Live 0x0\nmicom_drv 1236992 0 - Live 0x0\n", true, {}},
        {"at position 4", "1234micom\n", false, {}},
        {"at position 5", "abcdemicom 1 0\n", true, {}},
        {"no /proc/modules: not a television in both builds", nullptr, false, {c_noModulesLine}},
        {"cannot be opened (ELOOP)",
         nullptr,
         c_failClosed,
         {c_noModulesLine},
         [](const char* m) { return symlink(m, m); }},
        {"opened, every read fails (EISDIR)", nullptr, c_failClosed, {}, [](const char* m) { return mkdir(m, 0700); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        DeviceProfile device;
        device.set("modules", row.modules);
        ASSERT_EQ(row.make ? row.make((device.path() + "/modules").c_str()) : 0, 0);
        clearLog();
        EXPECT_EQ(IsDTV(), row.television);
        EXPECT_EQ(loggedLines(), row.lines);

        DaemonListener daemon;
        EXPECT_EQ(verifyFileWihtoutKey(file.c_str(), "loader"), row.television ? 0 : 1);
        EXPECT_EQ(daemon.drain(), row.television ? Lines{refusalFrame(file)} : Lines{});
    }
}

// A real path longer than the platform's longest path cannot be resolved;
// the file is reached through a short relative name.
TEST(GateFaults, RealPathBeyondTheLongestPath)
{
    const TempDir dir;
    DeviceProfile device;
    const std::string component(200, 'd');
    const UniqueFd start(open(".", O_RDONLY | O_DIRECTORY));
    ASSERT_TRUE(start);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    for (int depth = 0; depth < 25; ++depth) {
        ASSERT_EQ(mkdir(component.c_str(), 0700), 0);
        ASSERT_EQ(chdir(component.c_str()), 0);
    }
    struct Row {
        const char* name;
        std::string content;
        int answer;
        bool reported;
    };
    const Row rows[] = {
        {"unsigned", c_script, c_failClosed ? 0 : 1, c_failClosed},
        {"signed", signedFile(c_script, "P50", devPrivateKey('5')), 1, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile("./run.sh", row.content);
        DaemonListener daemon;
        clearLog();
        EXPECT_EQ(verifyFileWihtoutKey("run.sh", "loader"), row.answer);
        EXPECT_EQ(loggedLines().at(0),
                  errorLine("bs_context.cpp", "checkFileIsInRWUser", "realpath() error : File name too long;"));
        EXPECT_EQ(daemon.drain(), row.reported ? Lines{refusalFrame("run.sh")} : Lines{});
        // The default build asks nothing of the device about such a file.
        EXPECT_EQ(device.takeTrace().empty(), !c_failClosed);
    }
    // Leave the tree by its name's pieces: the whole name is too long to use.
    for (int depth = 0; depth < 25; ++depth) {
        ASSERT_EQ(chdir(".."), 0);
    }
    ASSERT_EQ(fchdir(start.get()), 0);
}
