/* Host stand-in of the platform configuration store: one file per key under a
 * store directory, the key's slashes being directories, so that
 * "db/comss/hwduid" is the file <store>/db/comss/hwduid. The store directory
 * is fixed when the library is built (KZOL_VCONF_STORE_DEFAULT); the
 * environment variable KZOL_VCONF_STORE names another one, for this stand-in
 * only. Nothing is cached: every call reads the file afresh. */
#include <vconf.h>

#include <stdlib.h>

#include "value_store.h"

#ifndef KZOL_VCONF_STORE_DEFAULT
#define KZOL_VCONF_STORE_DEFAULT "/var/lib/kzol/vconf"
#endif

char *vconf_get_str(const char *key)
{
    const char *store = getenv("KZOL_VCONF_STORE");
    if (store == NULL || store[0] == '\0')
        store = KZOL_VCONF_STORE_DEFAULT;
    return store_read_value(store, key);
}
