/* libkZOLUser: may this file run?
 *
 * verifyFileWihtoutKey(fileName, caller) answers 1 when the file may run and
 * 0 when it is refused; a refusal is reported to the platform's security
 * daemon. `caller` names the calling task (NULL is shown as "NULL").
 * verifyFile takes a first, unused pointer-sized argument and answers the same.
 *
 * SendSecurityReport sends a component's own report(s): type 0 a log report;
 * bit 0 a file report, bit 1 a data report (3 sends both). It answers 0 when
 * every requested report was handed over, 1 otherwise.
 *
 * verifyFileExplained answers exactly as verifyFileWihtoutKey, with the same
 * log lines and report, and fills `decision` (when not NULL) with the step of
 * the policy that decided and, for KZOL_STEP_SIGNATURE, the verification
 * result (BS_SIGNATURE_CORRECT 5, BS_NOT_SIGNED 4, BS_SIGNATURE_INCORRECT 6,
 * BS_ERROR 0). It is an addition beside the described entry points.
 *
 * All of them block the calling thread until done and may be called from any
 * thread. */
#ifndef KZOLUSER_H
#define KZOLUSER_H

#ifdef __cplusplus
extern "C" {
#endif

int verifyFileWihtoutKey(const char *fileName, const char *caller);

/* The policy step that decided an answer. */
enum kzol_step {
    KZOL_STEP_FAILURE = 0,            /* refused: a failure inside the library */
    KZOL_STEP_MISSING = 1,            /* refused: the file does not exist */
    KZOL_STEP_OUTSIDE_AREAS = 2,      /* allowed: outside the user-writable areas */
    KZOL_STEP_NOT_TELEVISION = 3,     /* allowed: not a television */
    KZOL_STEP_DISABLE_CERTIFICATE = 4, /* allowed: a disable certificate for this device */
    KZOL_STEP_ISOLATED_CONTAINER = 5, /* allowed: an isolated container */
    KZOL_STEP_SIGNATURE = 6           /* the signature check decided; see result */
};
struct kzol_decision {
    int step;   /* enum kzol_step */
    int result; /* verification result for KZOL_STEP_SIGNATURE, else 0 */
};
int verifyFileExplained(const char *fileName, const char *caller, struct kzol_decision *decision);
int verifyFile(void *unused, const char *fileName, const char *caller);
int SendSecurityReport(const char *caller, const char *fileType, const char *path,
                       const char *description, int type);

#ifdef __cplusplus
}
#endif

#endif
