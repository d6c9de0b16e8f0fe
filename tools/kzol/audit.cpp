// kzol audit: how the policy would treat every file of a tree, before the
// check is enforced on a device: outside the user-writable areas, signed
// correctly (with which key), not signed, signed incorrectly, unreadable.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <CLI/CLI.hpp>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <limits.h>
#include <memory>
#include <mutex>

#include "bs_context.h"
#include "commands.h"
#include "common.h"
#include "signature.h"

namespace kzol {

namespace {

// Where the policy checks signatures, and the directories below them it
// leaves alone (matched after the area, as the library does).
const char* const c_areas[] = {"/opt", "/tmp"};
const char* const c_excluded[] = {"/var/tmp/rpm-tmp", "/data/pebblecove"};

enum Class { Outside, Correct5, Correct6, NotSigned, Incorrect, Error, Unreadable, Special, ClassCount };

const char* const c_classNames[ClassCount] = {"outside",   "correct", "correct",    "not-signed",
                                              "incorrect", "error",   "unreadable", "special"};
const char* const c_classTitles[ClassCount] = {"outside the areas (runs unchecked)",
                                               "signed correctly, key 5",
                                               "signed correctly, key 6",
                                               "not signed",
                                               "signed incorrectly",
                                               "signature check error",
                                               "unreadable",
                                               "special file (not opened)"};

bool refused(Class c)
{
    return c != Outside && c != Correct5 && c != Correct6;
}

struct Entry {
    std::string path;
    bool special = false;
    bool unreadable = false;
    Class result = Error;
    std::string detail;
};

struct AuditOptions {
    std::vector<std::string> directories;
    unsigned int jobs = 0;
    bool json = false;
    std::string caller = "kzol-audit";
};

std::vector<Entry>* g_entries = nullptr;  // the walk's output; nftw takes no user data
std::vector<std::string> g_skip;          // excluded directories of the default walk

int visit(const char* path, const struct stat* st, int flag, struct FTW* /*ftw*/)
{
    if (flag == FTW_D || flag == FTW_DP) {
        for (const std::string& skip : g_skip) {
            if (skip == path) {
                return FTW_SKIP_SUBTREE;
            }
        }
        return FTW_CONTINUE;
    }
    Entry entry;
    entry.path = path;
    if (flag == FTW_DNR || flag == FTW_NS) {
        entry.unreadable = true;
        entry.detail = flag == FTW_DNR ? "directory not readable" : "cannot stat";
    } else if (flag == FTW_SL || flag == FTW_SLN) {
        return FTW_CONTINUE;  // links are not followed; their targets in the tree are visited as themselves
    } else if (!S_ISREG(st->st_mode)) {
        entry.special = true;
    }
    g_entries->push_back(std::move(entry));
    return FTW_CONTINUE;
}

void classify(Entry& entry, const std::string& caller)
{
    if (entry.unreadable) {
        entry.result = Unreadable;
        return;
    }
    BSContext context;
    char resolved[PATH_MAX + 1] = {};
    if (context.checkFileIsInRWUser(entry.path.c_str(), resolved) != 0) {
        entry.result = Outside;
        return;
    }
    if (entry.special) {
        entry.result = Special;
        return;
    }
    {
        const UniqueFd fd(::open(entry.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!fd) {
            entry.result = Unreadable;
            entry.detail = errnoText(errno);
            return;
        }
    }
    const std::string real(resolved);
    switch (context.verifyFile(real, caller.c_str())) {
    case BS_SIGNATURE_CORRECT: {
        Signature signature;
        _ZolSigMeta meta{};
        entry.result = signature.loadFromFile(real, meta) && meta.keyId == '6' ? Correct6 : Correct5;
        break;
    }
    case BS_NOT_SIGNED: entry.result = NotSigned; break;
    case BS_SIGNATURE_INCORRECT: entry.result = Incorrect; break;
    default: entry.result = Error; break;
    }
}

int runAudit(const AuditOptions& options)
{
    std::vector<std::string> roots = options.directories;
    g_skip.clear();
    if (roots.empty()) {
        for (const char* area : c_areas) {
            roots.emplace_back(area);
            for (const char* excluded : c_excluded) {
                g_skip.push_back(std::string(area) + excluded);
            }
        }
    }
    std::vector<Entry> entries;
    g_entries = &entries;
    for (const std::string& root : roots) {
        struct stat st {};
        if (::lstat(root.c_str(), &st) != 0) {
            if (options.directories.empty() && errno == ENOENT) {
                continue;  // an area this machine does not have
            }
            return fail("cannot walk " + root + ": " + errnoText(errno));
        }
        if (::nftw(root.c_str(), visit, 64, FTW_PHYS | FTW_ACTIONRETVAL) != 0) {
            return fail("cannot walk " + root + ": " + errnoText(errno));
        }
    }
    g_entries = nullptr;

    const bool progress = ::isatty(2) == 1;
    const auto start = std::chrono::steady_clock::now();
    std::atomic<std::size_t> done{0};
    std::mutex progressMutex;
    forEachInParallel(entries.size(), workerCount(options.jobs), [&](std::size_t i) {
        classify(entries[i], options.caller);
        const std::size_t count = ++done;
        if (progress && (count % 64 == 0 || count == entries.size())) {
            const std::lock_guard<std::mutex> lock(progressMutex);
            const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            std::fprintf(stderr, "\r%zu/%zu files, %.0f files/s", count, entries.size(),
                         seconds > 0 ? static_cast<double>(count) / seconds : 0.0);
        }
    });
    if (progress && !entries.empty()) {
        std::fprintf(stderr, "\n");
    }

    std::size_t counts[ClassCount] = {};
    std::size_t refusedCount = 0;
    for (const Entry& entry : entries) {
        ++counts[entry.result];
        refusedCount += refused(entry.result) ? 1 : 0;
    }
    if (options.json) {
        Json::Value document(Json::objectValue);
        Json::Value& files = document["files"] = Json::Value(Json::arrayValue);
        for (const Entry& entry : entries) {
            Json::Value item(Json::objectValue);
            item["path"] = entry.path;
            item["class"] = c_classNames[entry.result];
            item["refused"] = refused(entry.result);
            if (entry.result == Correct5 || entry.result == Correct6) {
                item["key"] = entry.result == Correct5 ? "5" : "6";
            }
            if (!entry.detail.empty()) {
                item["detail"] = entry.detail;
            }
            files.append(item);
        }
        Json::Value& summary = document["summary"] = Json::Value(Json::objectValue);
        summary["files"] = static_cast<Json::UInt64>(entries.size());
        summary["refused"] = static_cast<Json::UInt64>(refusedCount);
        summary["outside"] = static_cast<Json::UInt64>(counts[Outside]);
        summary["correct_5"] = static_cast<Json::UInt64>(counts[Correct5]);
        summary["correct_6"] = static_cast<Json::UInt64>(counts[Correct6]);
        for (const Class c : {NotSigned, Incorrect, Error, Unreadable, Special}) {
            summary[c_classNames[c]] = static_cast<Json::UInt64>(counts[c]);
        }
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        std::cout << Json::writeString(builder, document) << std::endl;
    } else {
        for (const Entry& entry : entries) {
            if (refused(entry.result)) {
                std::cout << "refused: " << c_classNames[entry.result] << "  " << printable(entry.path) << "\n";
            }
        }
        for (int c = 0; c < ClassCount; ++c) {
            std::printf("%-36s %8zu\n", c_classTitles[c], counts[c]);
        }
        std::printf("%-36s %8zu\n%-36s %8zu\n", "files", entries.size(), "would be refused", refusedCount);
        std::fflush(stdout);
    }
    return refusedCount == 0 ? c_exitSuccess : c_exitNegative;
}

}  // namespace

void addAuditCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<AuditOptions>();
    CLI::App* cmd = app.add_subcommand("audit", "How the policy would treat every file of the trees");
    cmd->add_option("DIR", options->directories,
                    "Trees to walk (default: /opt and /tmp without their excluded directories)");
    cmd->add_option("-j,--jobs", options->jobs, "Files checked at once (default: one per processor)")
        ->check(CLI::Range(1U, 256U));
    cmd->add_flag("--json", options->json, "Every file and the summary as one JSON document");
    cmd->footer("Each regular file is classified as the library's policy would treat it on a television:\n"
                "outside the user-writable areas, signed correctly (key 5 or 6), not signed, signed\n"
                "incorrectly, check error, or unreadable. Symbolic links are not followed; special files\n"
                "(FIFOs, devices, sockets) are listed, never opened, and would be refused.\n"
                "Exit status: 0 nothing would be refused; 1 some file would be; 2 a tree cannot be walked.\n");
    cmd->callback([options, &status]() { status = runAudit(*options); });
}

}  // namespace kzol
