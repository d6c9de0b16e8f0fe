// kzol verify: the library's own verdict on files, with its built-in keys or
// with a deployment's public keys. Many files (named, or listed with --from)
// are verified by workers that each parse the keys once; the verdicts are
// the library's, with the reason for each failure.
#include <json/json.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>

#include "batch_verifier.h"
#include "bs_context.h"
#include "commands.h"
#include "common.h"
#include "keyset.h"
#include "log_observer.h"
#include "progress.h"

namespace kzol {

namespace {

// Names are verified and printed in rounds of this many, in their order.
constexpr std::size_t c_roundSize = 2048;

struct VerifyOptions {
    std::vector<std::string> files;
    std::string from;
    bool nulSeparated = false;
    unsigned int jobs = 0;
    bool json = false;
    bool quiet = false;
    std::string caller = "kzol";
    std::string keyDirectory;
    std::vector<std::string> publicKeys;
};

// The names to verify: the arguments, then those of the list, read a round
// at a time so that a list of any length takes little memory.
class NameSource {
public:
    explicit NameSource(const VerifyOptions& options) : m_options(options) {}

    bool open(std::string& error)
    {
        if (m_options.from.empty() || m_options.from == "-") {
            return true;
        }
        m_file.open(m_options.from, std::ios::binary);
        if (!m_file) {
            error = "cannot read " + m_options.from + ": " + errnoText(errno);
            return false;
        }
        return true;
    }

    // Up to `count` more names into `names`; false on a read error.
    bool next(std::vector<std::string>& names, std::size_t count)
    {
        names.clear();
        for (; m_argument < m_options.files.size() && names.size() < count; ++m_argument) {
            names.push_back(m_options.files[m_argument]);
        }
        if (m_options.from.empty()) {
            return true;
        }
        std::istream& in = m_options.from == "-" ? std::cin : m_file;
        const char separator = m_options.nulSeparated ? '\0' : '\n';
        std::string name;
        while (names.size() < count && std::getline(in, name, separator)) {
            if (!m_options.nulSeparated && !name.empty() && name.back() == '\r') {
                name.pop_back();
            }
            if (!name.empty()) {
                names.push_back(name);
            }
        }
        return !in.bad();
    }

private:
    const VerifyOptions& m_options;
    std::ifstream m_file;
    std::size_t m_argument = 0;
};

// The library itself on one file, for -v, whose lines are the library's own.
Verdict libraryVerdict(BatchVerifier& verifier, const std::string& path, const KeySet* keys, const char* caller)
{
    Verdict verdict = verifier.verifyPath(path, true);  // the reason, and whether it can be read at all
    if (verdict.reason == Reason::Unreadable) {
        return verdict;
    }
    BSContext context;
    verdict.result = keys != nullptr ? context.verifyFileWithKeys(path, keys->pem5, keys->pem6, caller)
                                     : context.verifyFile(path, caller);
    return verdict;
}

std::string unreadableText(const std::string& path, int error)
{
    if (error == ENXIO || error == EISDIR) {
        return path + " is not a regular file";
    }
    return "cannot open " + path + ": " + errnoText(error);
}

Json::Value jsonLine(const std::string& path, const Verdict& verdict)
{
    Json::Value line(Json::objectValue);
    line["file"] = isValidUtf8(path) ? path : printable(path);
    const bool unreadable = verdict.reason == Reason::Unreadable;
    line["result"] = unreadable ? Json::Value() : Json::Value(resultName(verdict.result));
    line["reason"] = verdict.reason == Reason::None ? Json::Value() : Json::Value(reasonName(verdict.reason));
    line["selector"] = verdict.selector == 0 ? Json::Value() : Json::Value(printable(verdict.selector));
    line["signed_bytes"] = verdict.selector == 0 ? Json::Value() : Json::Value(Json::UInt64{verdict.signedBytes});
    if (unreadable) {
        line["error"] = unreadableText(path, verdict.error);
    }
    return line;
}

struct Tally {
    std::size_t files = 0;
    std::size_t correct = 0;
    std::size_t incorrect = 0;
    std::size_t notSigned = 0;
    std::size_t errors = 0;
    std::size_t unreadable = 0;

    void add(const Verdict& verdict)
    {
        ++files;
        if (verdict.reason == Reason::Unreadable) {
            ++unreadable;
            return;
        }
        switch (verdict.result) {
        case BS_SIGNATURE_CORRECT: ++correct; break;
        case BS_SIGNATURE_INCORRECT: ++incorrect; break;
        case BS_NOT_SIGNED: ++notSigned; break;
        default: ++errors; break;
        }
    }
};

int runVerify(const VerifyOptions& options)
{
    if (options.nulSeparated && options.from.empty()) {
        return fail("-0 reads the --from list: name one");
    }
    KeySet keys;
    const bool givenKeys = !options.keyDirectory.empty() || !options.publicKeys.empty();
    std::string error;
    if (givenKeys) {
        if (!loadKeySet(options.keyDirectory, options.publicKeys, keys, error)) {
            return fail(error);
        }
    } else {
        keys = builtInKeys();
    }
    NameSource names(options);
    if (!names.open(error)) {
        return fail(error);
    }
    const unsigned int jobs = workerCount(options.jobs);
    std::vector<BatchVerifier> verifiers(jobs);
    for (BatchVerifier& verifier : verifiers) {
        if (!verifier.load(keys, error)) {
            return fail(error);
        }
    }
    const bool viaLibrary = libraryLogShown();
    // One file prints the bare result, as scripts have always read it; more
    // print the file's name before each.
    const bool named = options.files.size() > 1 || !options.from.empty();
    Progress progress(0, !options.quiet && named);
    progress.setTotal(options.from.empty() ? options.files.size() : 0);

    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    Tally tally;
    int status = c_exitSuccess;
    std::vector<std::string> round;
    std::vector<Verdict> verdicts;
    for (;;) {
        if (!names.next(round, c_roundSize)) {
            progress.finish();
            fail("cannot read " + options.from);
            return c_exitError;
        }
        if (round.empty()) {
            break;
        }
        verdicts.assign(round.size(), Verdict{});
        forEachInParallel(round.size(), jobs, [&](std::size_t i, unsigned int worker) {
            verdicts[i] = viaLibrary ? libraryVerdict(verifiers[worker], round[i], givenKeys ? &keys : nullptr,
                                                      options.caller.c_str())
                                     : verifiers[worker].verifyPath(round[i], true);
            progress.advance();
        });
        progress.clear();
        for (std::size_t i = 0; i < round.size(); ++i) {
            const std::string& path = round[i];
            const Verdict& verdict = verdicts[i];
            tally.add(verdict);
            const bool unreadable = verdict.reason == Reason::Unreadable;
            if (unreadable) {
                status = c_exitError;
            } else if (verdict.result != BS_SIGNATURE_CORRECT && status == c_exitSuccess) {
                status = c_exitNegative;
            }
            if (options.json) {
                writer->write(jsonLine(path, verdict), &std::cout);
                std::cout << '\n';
                continue;
            }
            if (unreadable) {
                fail(unreadableText(path, verdict.error));
                continue;
            }
            std::cout << (named ? path + ": " : std::string()) << resultName(verdict.result) << '\n';
            if (named && !options.quiet && verdict.reason != Reason::None) {
                std::cerr << "kzol: " << path << ": " << reasonText(verdict.reason) << '\n';
            }
        }
        std::cout.flush();
    }
    progress.finish();
    if (options.json) {
        Json::Value summary(Json::objectValue);
        Json::Value& counts = summary["summary"];
        counts["files"] = Json::UInt64{tally.files};
        counts["correct"] = Json::UInt64{tally.correct};
        counts["incorrect"] = Json::UInt64{tally.incorrect};
        counts["not_signed"] = Json::UInt64{tally.notSigned};
        counts["error"] = Json::UInt64{tally.errors};
        counts["unreadable"] = Json::UInt64{tally.unreadable};
        writer->write(summary, &std::cout);
        std::cout << std::endl;
    } else if (named && !options.quiet) {
        std::cerr << tally.files << " files: " << tally.correct << " correct, " << tally.incorrect << " incorrect, "
                  << tally.notSigned << " not signed, " << tally.errors << " error, " << tally.unreadable
                  << " unreadable" << std::endl;
    }
    if (tally.files == 0) {
        return fail("no file to verify: name FILEs or --from a list");
    }
    return status;
}

}  // namespace

void addVerifyCommand(CLI::App& app, int& status)
{
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* cmd = app.add_subcommand("verify", "Check files' signatures with the library's own verification");
    cmd->add_option("FILE", options->files, "Files to check");
    cmd->add_option("--from", options->from,
                    "Also check the files listed in LIST, one path a line (- for standard input)");
    cmd->add_flag("-0,--null", options->nulSeparated, "The --from list's paths end with NUL, not line feeds");
    cmd->add_option("-j,--jobs", options->jobs, "Files checked at once (default: one per processor)")
        ->check(CLI::Range(1U, 256U));
    cmd->add_flag("--json", options->json, "One JSON object a line for each file, then a summary line");
    cmd->add_flag("-q,--quiet", options->quiet, "No progress, reasons or summary on standard error");
    cmd->add_option("--caller", options->caller, "Caller name the library logs with the outcome (default: kzol)");
    cmd->add_option("--keys", options->keyDirectory,
                    "Verify with DIR/public_key_5.pem and DIR/public_key_6.pem (as 'kzol keygen' writes them) "
                    "instead of the built-in keys");
    cmd->add_option("--pubkey", options->publicKeys, "5=FILE or 6=FILE: verify that selector with this public key")
        ->allow_extra_args(false);
    cmd->footer(
        "Prints the library's result for each file (after \"FILE: \" when there are several, or a list):\n"
        "BS_SIGNATURE_CORRECT, BS_SIGNATURE_INCORRECT, BS_NOT_SIGNED or BS_ERROR. With --keys or --pubkey the\n"
        "verification runs with those keys in place of the built-in ones; a selector without a given key\n"
        "answers BS_ERROR. With several files, the reason for each failure (no signature block, bad length\n"
        "field, wrong signature type, unknown key selector, malformed signature text, hash mismatch) and a\n"
        "summary line go to standard error, and progress while it is a terminal (not with -q).\n"
        "--json: {\"file\", \"result\", \"reason\", \"selector\", \"signed_bytes\"} a line, in the files' order,\n"
        "then {\"summary\": {...}}; an unreadable file has result null and an \"error\".\n"
        "The keys are parsed once for each of the -j workers; the verdicts are those of the library's\n"
        "verifyFileWithKeys (with -v the library itself checks each file, and logs its lines).\n"
        "Exit status: 0 every file BS_SIGNATURE_CORRECT; 1 any other result; 2 a file missing,\n"
        "not a regular file or unreadable, unreadable keys or list, or bad usage.\n");
    cmd->callback([options, &status]() { status = runVerify(*options); });
}

}  // namespace kzol
