/* Platform USB device service, as the library sees it. */
#ifndef KZOL_PLATFORM_USB_DEVICE_H
#define KZOL_PLATFORM_USB_DEVICE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct usb_device_s usb_device_s;

/* Starts the service for this process; 0 on success. */
int usb_device_init(void);

/* Calls `cb(device, user_data)` for every attached USB mass-storage device,
 * one at a time, all before it returns; 0 on success. */
int usb_mass_storage_foreach(void (*cb)(usb_device_s *, void *), void *user_data);

/* The mount path of the device's storage, owned by the service and valid
 * during the callback; NULL when it has none. */
char *usb_device_get_mountpath(usb_device_s *device);

/* Ends the service; called once after a successful usb_device_init(). */
void usb_device_fini(void);

#ifdef __cplusplus
}
#endif

#endif
