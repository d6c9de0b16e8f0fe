/* libkZOLUser: may this file run?
 *
 * Link with pkg-config (`pkg-config --cflags --libs kzol`) or CMake
 * (`find_package(kZOLUser)`, target kZOLUser::kZOLUser); the shared object is
 * libkZOLUser.so.1.
 *
 * verifyFileWihtoutKey(fileName, caller)
 *   Answers 1 when the file may run and 0 when it is refused; no other value.
 *   A file that does not exist is refused without a report; every other
 *   refusal is reported to the platform's security daemon, and the answer is 0
 *   whether or not the report was delivered. fileName is absolute or relative;
 *   a relative name resolves against the calling process's current directory,
 *   and symbolic links are followed. caller names the calling task in log
 *   lines and reports (NULL is shown as "NULL"); the report carries at most
 *   its first 16 bytes.
 *
 * verifyFile(unused, fileName, caller)
 *   Never reads its first argument; answers as verifyFileWihtoutKey.
 *
 * verifyFileDescriptor(fd, fileName, caller)
 *   The same decision, with the file's content read from the open descriptor
 *   fd instead of from the path: fileName is still what decides whether the
 *   file needs a signature at all (user-writable area, device) and names the
 *   file in log lines and reports. The content is read with pread at positions
 *   of its own, so fd's file offset does not matter and is not moved; fd stays
 *   open. For a file that does not change, the answer, log lines and report
 *   equal those of verifyFileWihtoutKey(fileName, caller). A descriptor that
 *   cannot be read yields a refusal (not signed).
 *
 * verifyFileExplained(fileName, caller, decision)
 *   Answers exactly as verifyFileWihtoutKey, with the same log lines and
 *   report, and fills decision (when not NULL) with the step of the policy
 *   that decided and, for KZOL_STEP_SIGNATURE, the verification result
 *   (BS_SIGNATURE_CORRECT 5, BS_NOT_SIGNED 4, BS_SIGNATURE_INCORRECT 6,
 *   BS_ERROR 0). An addition beside the described entry points.
 *
 * SendSecurityReport(caller, fileType, path, description, type)
 *   Sends a component's own report(s): type 0 a log report; bit 0 a file
 *   report, bit 1 a data report (3 sends both). Answers 0 when every requested
 *   report was handed over and 1 otherwise: the opposite sense of the two
 *   verification calls.
 *
 * Threads: every call blocks its thread until done (connecting to the daemon
 * has no timeout) and may come from any thread; calls do not share state, and
 * the disable-certificate search is serialised inside the library. A failure
 * that would escape as an exception refuses the file (0) and makes
 * SendSecurityReport answer 1.
 *
 * The file can change after the answer: a caller that checks a path and then
 * runs that path runs whatever the path holds by then, and anyone who may
 * write the file can swap its content in between. To run exactly the bytes
 * that were checked, use `kzol exec FILE [ARGS...]`, or check an open
 * descriptor of a private, unchangeable copy with verifyFileDescriptor and
 * run that copy.
 *
 * The library exports a symbol `main` that returns 0. A program that takes its
 * own main from a static archive (gtest_main, benchmark_main) must define main
 * in one of its own object files, or the library's main is the one that runs.
 *
 * kZOLUserVersion() gives the version of the library actually loaded, as the
 * text "MAJOR.MINOR.PATCH"; KZOL_VERSION is the version of this header.
 */
#ifndef KZOLUSER_H
#define KZOLUSER_H

/* NOLINTBEGIN(cppcoreguidelines-macro-usage): constants of a C header */
#define KZOL_VERSION_MAJOR 1
#define KZOL_VERSION_MINOR 1
#define KZOL_VERSION_PATCH 0
#define KZOL_VERSION "1.1.0"
/* NOLINTEND(cppcoreguidelines-macro-usage) */

#ifdef __cplusplus
extern "C" {
#endif

int verifyFileWihtoutKey(const char* fileName, const char* caller);

/* The policy step that decided an answer. */
enum kzol_step {
    KZOL_STEP_FAILURE = 0,             /* refused: a failure inside the library */
    KZOL_STEP_MISSING = 1,             /* refused: the file does not exist */
    KZOL_STEP_OUTSIDE_AREAS = 2,       /* allowed: outside the user-writable areas */
    KZOL_STEP_NOT_TELEVISION = 3,      /* allowed: not a television */
    KZOL_STEP_DISABLE_CERTIFICATE = 4, /* allowed: a disable certificate for this device */
    KZOL_STEP_ISOLATED_CONTAINER = 5,  /* allowed: an isolated container */
    KZOL_STEP_SIGNATURE = 6            /* the signature check decided; see result */
};
struct kzol_decision {
    int step;   /* enum kzol_step */
    int result; /* verification result for KZOL_STEP_SIGNATURE, else 0 */
};
int verifyFileExplained(const char* fileName, const char* caller, struct kzol_decision* decision);
int verifyFile(void* unused, const char* fileName, const char* caller);
int verifyFileDescriptor(int fd, const char* fileName, const char* caller);
int SendSecurityReport(const char* caller, const char* fileType, const char* path, const char* description, int type);
const char* kZOLUserVersion(void);

#ifdef __cplusplus
}
#endif

#endif
