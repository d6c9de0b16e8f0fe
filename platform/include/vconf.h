/* Platform configuration store, as the library sees it. */
#ifndef KZOL_PLATFORM_VCONF_H
#define KZOL_PLATFORM_VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/* The string stored under `key`, in storage that the caller releases with
 * free(); NULL when the store holds no value under the key. */
char *vconf_get_str(const char *key);

#ifdef __cplusplus
}
#endif

#endif
