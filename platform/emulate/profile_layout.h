/* The layout of a device profile: the directory that the device emulation
 * answers from and that `kzol profile init` makes. The text below is the one
 * description of it, shown by `kzol profile init --help`; the names are the
 * ones both sides use. */
#ifndef KZOL_PROFILE_LAYOUT_H
#define KZOL_PROFILE_LAYOUT_H

#define KZOL_PROFILE_MODULES "modules"
#define KZOL_PROFILE_ZONE "zone"
#define KZOL_PROFILE_UID "uid"
#define KZOL_PROFILE_VCONF "vconf"
#define KZOL_PROFILE_USB "usb"
#define KZOL_PROFILE_NOMOUNT_SUFFIX ".nomount"
#define KZOL_PROFILE_FOREACH_RESULT ".foreach-result"

#define KZOL_PROFILE_LAYOUT_TEXT                                                                                       \
    "Profile layout (every file optional, read afresh at each access):\n"                                              \
    "  modules                what fopen(\"/proc/modules\") reads; a line starting \"micom \"\n"                       \
    "                         makes the device a television\n"                                                         \
    "  zone                   what fopen(\"/proc/self/zone\") and fopen(\"/proc/PID/zone\") read:\n"                   \
    "                         \"LEVEL TYPE\" (type 1 = isolated container)\n"                                          \
    "  uid                    getuid()/geteuid(), and the Uid line of /proc/PID/status: \"RUID\n"                      \
    "                         EUID\" or one ID for both; without it, the process's own IDs\n"                          \
    "  vconf/KEY              vconf_get_str(KEY), the key's slashes being directories:\n"                              \
    "                         vconf/db/comss/hwduid is the device identifier (one trailing\n"                          \
    "                         newline is not part of the value)\n"                                                     \
    "  usb/                   the USB service; without it usb_device_init() fails\n"                                   \
    "  usb/NAME/              an attached stick mounted at this directory (put RTZOLOFF.cer\n"                         \
    "                         here to attach a disable certificate)\n"                                                 \
    "  usb/NAME.nomount       an attached device without a mount path\n"                                               \
    "  usb/.foreach-result    the number usb_mass_storage_foreach() answers (default 0)\n"                             \
    "Devices are visited in byte order of their names; names starting with '.' are not\n"                              \
    "devices. A missing modules or zone file reads as a machine without that file.\n"                                  \
    "Tracing: with KZOL_EMULATE_TRACE=FILE every emulated access appends one line to FILE\n"                           \
    "(\"fopen /proc/modules\", \"getuid\", \"vconf_get_str KEY\", \"usb_device_init\", ...).\n"

#endif
