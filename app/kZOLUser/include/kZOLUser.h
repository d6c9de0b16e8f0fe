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
 * All three block the calling thread until done and may be called from any
 * thread. */
#ifndef KZOLUSER_H
#define KZOLUSER_H

#ifdef __cplusplus
extern "C" {
#endif

int verifyFileWihtoutKey(const char *fileName, const char *caller);
int verifyFile(void *unused, const char *fileName, const char *caller);
int SendSecurityReport(const char *caller, const char *fileType, const char *path,
                       const char *description, int type);

#ifdef __cplusplus
}
#endif

#endif
