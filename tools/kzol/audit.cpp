// kzol audit: how the policy would treat every file of a tree, before the
// check is enforced on a device: outside the user-writable areas, signed
// correctly (with which key), not signed, signed incorrectly, unreadable.
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits.h>
#include <memory>

#include "batch_verifier.h"
#include "bs_context.h"
#include "commands.h"
#include "common.h"
#include "keyset.h"
#include "progress.h"

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
    Reason reason = Reason::None;
};

struct AuditOptions {
    std::vector<std::string> directories;
    unsigned int jobs = 0;
    bool json = false;
    bool quiet = false;
    std::string caller = "kzol-audit";
    std::string keyDirectory;
    std::vector<std::string> publicKeys;
    std::string root;
};

// Files are classified and printed in rounds of this many, while the walk goes on.
constexpr std::size_t c_roundSize = 2048;

// The path the device sees for a file of the tree: below --root, the rest
// of the path; otherwise the path itself.
std::string devicePath(const std::string& path, const std::string& root)
{
    if (root.empty()) {
        return path;
    }
    const std::string rest = path.substr(root.size());
    return rest.empty() ? "/" : rest;
}

// The library's area test on a device path: under /opt or /tmp (as plain
// prefixes) and not under an excluded directory after the area.
bool inUserArea(const std::string& device)
{
    for (const char* area : c_areas) {
        const std::size_t length = std::strlen(area);
        if (device.compare(0, length, area) != 0) {
            continue;
        }
        for (const char* excluded : c_excluded) {
            if (device.compare(length, std::strlen(excluded), excluded) == 0) {
                return false;
            }
        }
        return true;
    }
    return false;
}

class Auditor {
public:
    Auditor(const AuditOptions& options, unsigned int jobs)
        : m_options(options), m_jobs(jobs), m_verifiers(jobs), m_progress(0, !options.quiet)
    {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        m_writer.reset(builder.newStreamWriter());
    }

    bool load(const KeySet& keys, std::string& error)
    {
        for (BatchVerifier& verifier : m_verifiers) {
            if (!verifier.load(keys, error)) {
                return false;
            }
        }
        return true;
    }

    // Takes one entry of the walk; a full round is classified and printed.
    void add(Entry entry)
    {
        m_round.push_back(std::move(entry));
        if (m_round.size() >= c_roundSize) {
            flush();
        }
    }

    void flush()
    {
        forEachInParallel(m_round.size(), m_jobs, [this](std::size_t i, unsigned int worker) {
            classify(m_round[i], m_verifiers[worker]);
            m_progress.advance();
        });
        m_progress.clear();
        for (const Entry& entry : m_round) {
            print(entry);
        }
        std::cout.flush();
        m_round.clear();
    }

    int finish()
    {
        flush();
        m_progress.finish();
        std::size_t refusedCount = 0;
        for (int c = 0; c < ClassCount; ++c) {
            refusedCount += refused(static_cast<Class>(c)) ? m_counts[c] : 0;
        }
        if (m_options.json) {
            Json::Value line(Json::objectValue);
            Json::Value& summary = line["summary"];
            summary["files"] = Json::UInt64{m_files};
            summary["refused"] = Json::UInt64{refusedCount};
            summary["outside"] = Json::UInt64{m_counts[Outside]};
            summary["correct_5"] = Json::UInt64{m_counts[Correct5]};
            summary["correct_6"] = Json::UInt64{m_counts[Correct6]};
            for (const Class c : {NotSigned, Incorrect, Error, Unreadable, Special}) {
                summary[c_classNames[c]] = Json::UInt64{m_counts[c]};
            }
            m_writer->write(line, &std::cout);
            std::cout << std::endl;
        } else {
            for (int c = 0; c < ClassCount; ++c) {
                std::printf("%-36s %8zu\n", c_classTitles[c], m_counts[c]);
            }
            std::printf("%-36s %8zu\n%-36s %8zu\n", "files", m_files, "would be refused", refusedCount);
            std::fflush(stdout);
        }
        return refusedCount == 0 ? c_exitSuccess : c_exitNegative;
    }

private:
    void classify(Entry& entry, BatchVerifier& verifier) const
    {
        if (entry.unreadable) {
            entry.result = Unreadable;
            return;
        }
        if (m_options.root.empty()) {
            BSContext context;
            char resolved[PATH_MAX + 1] = {};
            if (context.checkFileIsInRWUser(entry.path.c_str(), resolved) != 0) {
                entry.result = Outside;
                return;
            }
        } else if (!inUserArea(devicePath(entry.path, m_options.root))) {
            entry.result = Outside;
            return;
        }
        if (entry.special) {
            entry.result = Special;
            return;
        }
        // The walk did not follow links, and neither does the check: a name
        // swapped for a link meanwhile is not opened through it.
        const Verdict verdict = verifier.verifyPath(entry.path, false);
        entry.reason = verdict.reason;
        if (verdict.reason == Reason::Unreadable) {
            entry.result = Unreadable;
            entry.detail = errnoText(verdict.error);
            return;
        }
        switch (verdict.result) {
        case BS_SIGNATURE_CORRECT: entry.result = verdict.selector == '6' ? Correct6 : Correct5; break;
        case BS_NOT_SIGNED: entry.result = NotSigned; break;
        case BS_SIGNATURE_INCORRECT: entry.result = Incorrect; break;
        default: entry.result = Error; break;
        }
    }

    void print(const Entry& entry)
    {
        ++m_counts[entry.result];
        ++m_files;
        if (m_options.json) {
            Json::Value item(Json::objectValue);
            item["path"] = isValidUtf8(entry.path) ? entry.path : printable(entry.path);
            if (!m_options.root.empty()) {
                const std::string device = devicePath(entry.path, m_options.root);
                item["device_path"] = isValidUtf8(device) ? device : printable(device);
            }
            item["class"] = c_classNames[entry.result];
            item["refused"] = refused(entry.result);
            if (entry.result == Correct5 || entry.result == Correct6) {
                item["key"] = entry.result == Correct5 ? "5" : "6";
            }
            if (entry.reason != Reason::None) {
                item["reason"] = reasonName(entry.reason);
            }
            if (!entry.detail.empty()) {
                item["detail"] = entry.detail;
            }
            m_writer->write(item, &std::cout);
            std::cout << '\n';
        } else if (refused(entry.result)) {
            std::cout << "refused: " << c_classNames[entry.result] << "  " << printable(entry.path) << "\n";
        }
    }

    const AuditOptions& m_options;
    const unsigned int m_jobs;
    std::vector<BatchVerifier> m_verifiers;
    Progress m_progress;
    std::unique_ptr<Json::StreamWriter> m_writer;
    std::vector<Entry> m_round;
    std::size_t m_counts[ClassCount] = {};
    std::size_t m_files = 0;
};

Auditor* g_auditor = nullptr;     // the walk's receiver; nftw takes no user data
std::vector<std::string> g_skip;  // excluded directories of the default walk

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
    g_auditor->add(std::move(entry));
    return FTW_CONTINUE;
}

int runAudit(AuditOptions options)
{
    KeySet keys = builtInKeys();
    std::string error;
    if ((!options.keyDirectory.empty() || !options.publicKeys.empty()) &&
        !loadKeySet(options.keyDirectory, options.publicKeys, keys, error)) {
        return fail(error);
    }
    if (!options.root.empty()) {
        struct stat st {};
        if (::stat(options.root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            return fail("--root " + options.root + " is not a directory");
        }
        while (options.root.size() > 1 && options.root.back() == '/') {
            options.root.pop_back();
        }
        if (options.root == "/") {
            options.root.clear();
        }
    }
    // Device paths, each walked below the root.
    std::vector<std::string> roots;
    g_skip.clear();
    for (const std::string& directory : options.directories) {
        if (!options.root.empty() && (directory.empty() || directory[0] != '/')) {
            return fail("with --root, DIR is a path on the device: " + directory + " does not start with /");
        }
        roots.push_back(options.root + directory);
    }
    if (roots.empty()) {
        for (const char* area : c_areas) {
            roots.push_back(options.root + area);
            for (const char* excluded : c_excluded) {
                g_skip.push_back(options.root + area + excluded);
            }
        }
    }
    Auditor auditor(options, workerCount(options.jobs));
    if (!auditor.load(keys, error)) {
        return fail(error);
    }
    g_auditor = &auditor;
    for (const std::string& root : roots) {
        struct stat st {};
        if (::lstat(root.c_str(), &st) != 0) {
            if (options.directories.empty() && errno == ENOENT) {
                continue;  // an area this machine does not have
            }
            g_auditor = nullptr;
            return fail("cannot walk " + root + ": " + errnoText(errno));
        }
        if (::nftw(root.c_str(), visit, 64, FTW_PHYS | FTW_ACTIONRETVAL) != 0) {
            g_auditor = nullptr;
            return fail("cannot walk " + root + ": " + errnoText(errno));
        }
    }
    g_auditor = nullptr;
    return auditor.finish();
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
    cmd->add_flag("--json", options->json,
                  "One JSON object a line for each file as it is classified, then the summary");
    cmd->add_flag("-q,--quiet", options->quiet, "No progress on standard error");
    cmd->add_option("--keys", options->keyDirectory,
                    "Verify with DIR/public_key_5.pem and DIR/public_key_6.pem instead of the built-in keys");
    cmd->add_option("--pubkey", options->publicKeys, "5=FILE or 6=FILE: verify that selector with this public key")
        ->allow_extra_args(false);
    cmd->add_option("--root", options->root,
                    "Audit a staging tree as the device will see it: ROOT is its /, DIRs are device paths, and the "
                    "areas and excluded directories apply to the device paths");
    cmd->footer(
        "Each regular file is classified as the library's policy would treat it on a television:\n"
        "outside the user-writable areas, signed correctly (key 5 or 6), not signed, signed\n"
        "incorrectly, check error, or unreadable. Symbolic links are not followed; special files\n"
        "(FIFOs, devices, sockets) are listed, never opened, and would be refused. The keys are parsed\n"
        "once for each of the -j workers; the verdicts are those of the library's verifyFileWithKeys.\n"
        "--json: {\"path\", \"class\", \"refused\", \"key\", \"reason\", \"detail\"} a line (and \"device_path\"\n"
        "with --root), then {\"summary\": {...}}. Progress goes to standard error while it is a terminal.\n"
        "Exit status: 0 nothing would be refused; 1 some file would be; 2 a tree cannot be walked.\n");
    cmd->callback([options, &status]() { status = runAudit(*options); });
}

}  // namespace kzol
