// The two policy steps that fail open under faults, on an emulated
// television: a /proc/modules that exists but cannot be opened or read, and
// an existing file whose real path cannot be resolved. The default build
// keeps the described answers (the file runs unchecked); the KZOL_FAIL_CLOSED
// build holds the gate. Every row states both answers.
#include <gtest/gtest.h>

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

std::string refusal(const std::string& path)
{
    return frame(reportText(1, "loader", "SCRIPT",
                            "ver:\"1\",subject:\"" + path + "\",object:\"loader\",result:\"BS_NOT_SIGNED\",", path));
}

// The profile's "modules" made unreadable in one way or another.
enum class Modules { missing, loop, directory };

void makeModules(const DeviceProfile& device, Modules kind)
{
    const std::string path = device.path() + "/modules";
    std::filesystem::remove(path);
    if (kind == Modules::loop) {
        ASSERT_EQ(symlink(path.c_str(), path.c_str()), 0);  // ELOOP on open, also for root
    } else if (kind == Modules::directory) {
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0);  // opens, and every read fails with EISDIR
    }
}

}  // namespace

TEST(GateFaults, UnreadableModules)
{
    const TempDir dir("/tmp");
    const std::string file = std::filesystem::canonical(dir.path()).string() + "/unsigned.sh";
    writeFile(file, c_script);
    struct Row {
        const char* name;
        Modules modules;
        bool television;  // IsDTV's answer, and whether the file is then checked
        Lines lines;      // IsDTV's lines
    };
    const Row rows[] = {
        {"no /proc/modules: not a television in both builds", Modules::missing, false, {c_noModulesLine}},
        {"cannot be opened (ELOOP)", Modules::loop, c_failClosed, {c_noModulesLine}},
        {"opened, read fails (EISDIR)", Modules::directory, c_failClosed, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const DeviceProfile device;
        ASSERT_NO_FATAL_FAILURE(makeModules(device, row.modules));
        clearLog();
        EXPECT_EQ(IsDTV(), row.television);
        EXPECT_EQ(loggedLines(), row.lines);

        DaemonListener daemon;
        EXPECT_EQ(verifyFileWihtoutKey(file.c_str(), "loader"), row.television ? 0 : 1);
        EXPECT_EQ(daemon.drain(), row.television ? Lines{refusal(file)} : Lines{});
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
        EXPECT_EQ(daemon.drain(), row.reported ? Lines{refusal("run.sh")} : Lines{});
        // The default build asks nothing of the device about such a file.
        EXPECT_EQ(device.takeTrace().empty(), !c_failClosed);
    }
    // Leave the tree by its name's pieces: the whole name is too long to use.
    for (int depth = 0; depth < 25; ++depth) {
        ASSERT_EQ(chdir(".."), 0);
    }
    ASSERT_EQ(fchdir(start.get()), 0);
}
