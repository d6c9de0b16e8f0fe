/* Host stand-in of the platform USB device service: walks the USB mass storage
 * that is mounted on this machine.
 *
 * A mount counts as USB mass storage when its block device sits on the USB
 * bus: /sys/dev/block/MAJ:MIN resolves to a device path with a USB bus
 * component ("usb" and a bus number, as in
 * /sys/devices/pci0000:00/0000:00:14.0/usb2/2-1/.../block/sdb/sdb1). Only
 * mounts of the file system's root are visited (a bind mount of one of its
 * subdirectories does not show the storage's root), in the order of the mount
 * table, every such mount once.
 *
 * The service keeps no state between calls: usb_device_init() checks that the
 * mount table can be read, each walk reads it afresh, and usb_device_fini()
 * has nothing left to release. Walks on several threads do not meet.
 *
 * For tests without USB hardware, two environment variables, read by this
 * stand-in only, replace the kernel's views:
 *   KZOL_USB_MOUNTINFO  a file in the format of /proc/self/mountinfo, read
 *                       instead of /proc/self/mountinfo;
 *   KZOL_USB_SYSFS      a directory used instead of /sys (a tree with
 *                       dev/block/MAJ:MIN links into devices/...). */
#include <usb_device.h>

#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct usb_device_s {
    char *mountpath;
};

static const char *mountinfo_path(void)
{
    const char *path = getenv("KZOL_USB_MOUNTINFO");
    return path != NULL && path[0] != '\0' ? path : "/proc/self/mountinfo";
}

static const char *sysfs_root(void)
{
    const char *root = getenv("KZOL_USB_SYSFS");
    return root != NULL && root[0] != '\0' ? root : "/sys";
}

/* Undoes the octal escapes of a mountinfo field (\040 space, \011 tab, \012
 * newline, \134 backslash), in place. */
static void decode_octal_escapes(char *s)
{
    char *out = s;
    for (const char *in = s; *in != '\0';) {
        if (in[0] == '\\' && in[1] >= '0' && in[1] <= '3' && in[2] >= '0' && in[2] <= '7' && in[3] >= '0' &&
            in[3] <= '7') {
            *out++ = (char)(((in[1] - '0') << 6) | ((in[2] - '0') << 3) | (in[3] - '0'));
            in += 4;
        } else {
            *out++ = *in++;
        }
    }
    *out = '\0';
}

/* A "MAJ:MIN" field: decimal digits, a colon, decimal digits. */
static int is_device_number(const char *s)
{
    const char *p = s;
    if (!isdigit((unsigned char)*p))
        return 0;
    while (isdigit((unsigned char)*p))
        ++p;
    if (*p++ != ':' || !isdigit((unsigned char)*p))
        return 0;
    while (isdigit((unsigned char)*p))
        ++p;
    return *p == '\0';
}

/* A path component "usb" followed by a bus number. */
static int has_usb_bus_component(const char *path)
{
    for (const char *p = path; (p = strstr(p, "/usb")) != NULL; p += 4) {
        const char *q = p + 4;
        if (!isdigit((unsigned char)*q))
            continue;
        while (isdigit((unsigned char)*q))
            ++q;
        if (*q == '/' || *q == '\0')
            return 1;
    }
    return 0;
}

/* Whether the block device MAJ:MIN sits on the USB bus. `real_root` is the
 * resolved sysfs root; only the part of the device path below it is looked at. */
static int is_usb_block_device(const char *root, const char *real_root, const char *device_number)
{
    char link[PATH_MAX];
    int n = snprintf(link, sizeof link, "%s/dev/block/%s", root, device_number);
    if (n < 0 || (size_t)n >= sizeof link)
        return 0;
    char *device = realpath(link, NULL);
    if (device == NULL)
        return 0;
    const char *below = device;
    size_t rn = strlen(real_root);
    if (strcmp(real_root, "/") != 0 && strncmp(device, real_root, rn) == 0 && device[rn] == '/')
        below = device + rn;
    int usb = has_usb_bus_component(below);
    free(device);
    return usb;
}

/* The fields of a mountinfo line that the walk needs, or 0 when the line does
 * not have them: device number (3rd field), root (4th) and mount point (5th),
 * pointing into `line`, which is cut at the field ends. */
static int split_mountinfo_line(char *line, char **device_number, char **root, char **mount_point)
{
    char *fields[5];
    char *save = NULL;
    char *field = strtok_r(line, " \n", &save);
    for (int i = 0; i < 5; ++i) {
        if (field == NULL)
            return 0;
        fields[i] = field;
        field = strtok_r(NULL, " \n", &save);
    }
    *device_number = fields[2];
    *root = fields[3];
    *mount_point = fields[4];
    return 1;
}

int usb_device_init(void)
{
    FILE *table = fopen(mountinfo_path(), "re");
    if (table == NULL)
        return -1;
    fclose(table);
    return 0;
}

int usb_mass_storage_foreach(void (*cb)(usb_device_s *, void *), void *user_data)
{
    if (cb == NULL)
        return -1;

    const char *root = sysfs_root();
    char *real_root = realpath(root, NULL);
    FILE *table = fopen(mountinfo_path(), "re");
    if (table == NULL) {
        free(real_root);
        return -1;
    }

    /* The whole table is read before the first callback, so that a callback
     * that mounts or unmounts does not change this walk. */
    struct usb_device_s *devices = NULL;
    size_t count = 0, capacity = 0;
    int rc = 0;
    char *line = NULL;
    size_t line_size = 0;
    while (getline(&line, &line_size, table) >= 0) {
        char *device_number, *mount_root, *mount_point;
        if (!split_mountinfo_line(line, &device_number, &mount_root, &mount_point))
            continue;
        decode_octal_escapes(mount_root);
        if (strcmp(mount_root, "/") != 0 || !is_device_number(device_number))
            continue;
        if (!is_usb_block_device(root, real_root ? real_root : root, device_number))
            continue;
        decode_octal_escapes(mount_point);
        if (count == capacity) {
            size_t grown_capacity = capacity ? capacity * 2 : 4;
            struct usb_device_s *grown = realloc(devices, grown_capacity * sizeof *grown);
            if (grown == NULL) {
                rc = -1;
                break;
            }
            devices = grown;
            capacity = grown_capacity;
        }
        devices[count].mountpath = strdup(mount_point);
        if (devices[count].mountpath == NULL) {
            rc = -1;
            break;
        }
        ++count;
    }
    if (ferror(table))
        rc = -1;
    free(line);
    fclose(table);
    free(real_root);

    if (rc == 0) {
        for (size_t i = 0; i < count; ++i)
            cb(&devices[i], user_data);
    }
    for (size_t i = 0; i < count; ++i)
        free(devices[i].mountpath);
    free(devices);
    return rc;
}

char *usb_device_get_mountpath(usb_device_s *device)
{
    return device != NULL ? device->mountpath : NULL;
}

void usb_device_fini(void)
{
}
