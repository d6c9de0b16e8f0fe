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
 *   cannot be read yields a refusal (not signed). Kept for compatibility: it
 *   does NOT bind the area test to the file, because the name is looked up
 *   again; whoever can change a directory of the name in the meantime decides
 *   the area. Not safe for check-then-run; use the calls below.
 *
 * verifyOpenFile(fd, caller, decision)
 *   Decides every step from the open file fd itself, never from a name: the
 *   area from the kernel's path of the descriptor, confirmed by device and
 *   inode against what that path names now (a deleted file, a memory file or
 *   any mismatch is checked as in an area, never allowed as outside); the
 *   content read from fd with pread (offset untouched, fd stays open, fd
 *   must be open for reading). Answers 1 or 0 as verifyFileWihtoutKey, with
 *   the same log lines and report, the file named by its kernel path; fills
 *   decision when not NULL. Safe for check-then-run when what runs is fd
 *   itself and nobody can write the file; otherwise use verifyOpenFileToRun.
 *
 * verifyOpenFileToRun(fd, caller, maxBytes, runFd)
 *   The launcher's call: decides as verifyOpenFile and, on 1, puts into
 *   *runFd a new close-on-exec descriptor to execute (fexecve) or read: when
 *   the signature decided, a sealed memory copy of exactly the bytes that
 *   verified (holes stay holes; nobody can change it); when an earlier step
 *   allowed the file whatever it holds, a duplicate of fd. The copy is made
 *   only when the signature is checked; a file larger than maxBytes (0: 64
 *   MiB) cannot be copied and is refused as unreadable, with errno EFBIG.
 *   Safe for check-then-run: run *runFd, never the name.
 *
 * verifyOpenFileForProcess(fd, pid, caller, flags, decision)
 *   verifyOpenFile for a file that process pid (0: this one) is about to
 *   run: the root step from that process's real and effective user IDs
 *   (/proc/PID/status; unreadable counts as root) and the container step
 *   from its zone file (/proc/PID/zone). With KZOL_REPORT_LATER in flags a
 *   refusal is logged but not reported; the caller reports it afterwards with
 *   reportRefusal(fd, caller, decision->result). With KZOL_KEEP_KEYS the
 *   signature is checked with the built-in public keys parsed on the first
 *   such call and kept for the life of the process (parsing a key costs more
 *   than checking a small file): the same answers and log lines, for a
 *   daemon that decides many files. Without it every call parses the key.
 *
 * reportRefusal(fd, caller, result)
 *   Reports the refusal of the open file fd with that verification result,
 *   as the entry points do (same frame and log lines). 1 when the connection
 *   to the daemon was opened and closed cleanly, else 0.
 *
 * verifyScriptDescriptor(fd, caller)
 *   For an interpreter, before it reads a script it has opened: asks the
 *   kernel whether fd may be executed (execveat with AT_EXECVE_CHECK, Linux
 *   6.14 on, which also consults an enforcing daemon and noexec mounts) and
 *   decides as verifyOpenFile. 1 only when both allow; a kernel refusal is
 *   logged. On older kernels only the library decides.
 *
 * verifyFileExplained(fileName, caller, decision)
 *   Answers exactly as verifyFileWihtoutKey, with the same log lines and
 *   report, and fills decision (when not NULL) with the step of the policy
 *   that decided and, for KZOL_STEP_SIGNATURE, the verification result
 *   (enum kzol_result). An addition beside the described entry points.
 *
 * SendSecurityReport(caller, fileType, path, description, type)
 *   Sends a component's own report(s): type 0 a log report; bit 0 a file
 *   report, bit 1 a data report (3 sends both). Answers 0 when every requested
 *   report was handed over and 1 otherwise: the opposite sense of the two
 *   verification calls.
 *
 * Threads: every call blocks its thread until done (connecting to the daemon
 * has no timeout) and may come from any thread; calls do not share state
 * (but for the keys that KZOL_KEEP_KEYS keeps, read-only once parsed), and
 * the disable-certificate search is serialised inside the library. A failure
 * that would escape as an exception refuses the file (0) and makes
 * SendSecurityReport answer 1.
 *
 * Check-then-run: the calls that take a name (verifyFileWihtoutKey,
 * verifyFile, verifyFileExplained, verifyFileDescriptor) answer about what the
 * name led to while they looked; anyone who can write the file or a directory
 * of its path can make the name lead elsewhere before the caller runs it. To
 * run exactly what was decided, open the file once and use
 * verifyOpenFileToRun (and run the descriptor it gives), or use
 * `kzol exec FILE [ARGS...]`, which does so.
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
/* Verification results, as reports name them. */
enum kzol_result {
    KZOL_RESULT_ERROR = 0,              /* BS_ERROR: the check could not be carried out */
    KZOL_RESULT_INVALID_FILE_TYPE = 2,  /* BS_INVALID_FILE_TYPE: never returned */
    KZOL_RESULT_NOT_SIGNED = 4,         /* BS_NOT_SIGNED */
    KZOL_RESULT_SIGNATURE_CORRECT = 5,  /* BS_SIGNATURE_CORRECT */
    KZOL_RESULT_SIGNATURE_INCORRECT = 6 /* BS_SIGNATURE_INCORRECT */
};
struct kzol_decision {
    int step;   /* enum kzol_step */
    int result; /* enum kzol_result for KZOL_STEP_SIGNATURE, else 0 */
};
/* verifyOpenFileForProcess flags: a refusal is reported by the caller
 * (reportRefusal); the built-in keys are parsed once and kept. */
enum { KZOL_REPORT_LATER = 1, KZOL_KEEP_KEYS = 2 };
int verifyFileExplained(const char* fileName, const char* caller, struct kzol_decision* decision);
int verifyFile(void* unused, const char* fileName, const char* caller);
int verifyFileDescriptor(int fd, const char* fileName, const char* caller);
int verifyOpenFile(int fd, const char* caller, struct kzol_decision* decision);
int verifyOpenFileToRun(int fd, const char* caller, unsigned long long maxBytes, int* runFd);
int verifyOpenFileForProcess(int fd, int pid, const char* caller, int flags, struct kzol_decision* decision);
int reportRefusal(int fd, const char* caller, int result);
int verifyScriptDescriptor(int fd, const char* caller);
int SendSecurityReport(const char* caller, const char* fileType, const char* path, const char* description, int type);
const char* kZOLUserVersion(void);

#ifdef __cplusplus
}
#endif

#endif
