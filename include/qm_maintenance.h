/*
 * The maintenance CGIs: firmware upgrade (streamed into the flashing
 * program), reboot and factory reset, configuration backup and restore,
 * and the device-information document. Each handler parses its own request
 * and returns 0.
 */
#ifndef QM_MAINTENANCE_H
#define QM_MAINTENANCE_H

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* "firmware.cgi": the uploaded image goes straight into the flasher. */
QM_EXPORT int firmware_cgi(int argc, char **argv);
/* "firmupgd.cgi": as firmware_cgi unless Services_TR069 UpgdManaged says
 * the firmware is managed remotely; then only redirects. */
QM_EXPORT int firmware_user_cgi(int argc, char **argv);
/* "reboot.cgi": iRebootOption 2 resets to factory defaults and reboots,
 * any other integer reboots, none redirects only. */
QM_EXPORT int reboot_cgi(int argc, char **argv);
/* "export.cgi" and "import.cgi": the scrambled backup "router.bin". */
QM_EXPORT int export_cgi(int argc, char **argv);
QM_EXPORT int import_cgi(int argc, char **argv);
/* "_info.xml": line rates and whether a disk is mounted. */
QM_EXPORT int info_xml_cgi(int argc, char **argv);

/* SSI symbol iFirmwareProgression: the flasher's progress into Ssi (a
 * negative progress n shows as n - 130), or the error -129 (no progress
 * file) / -128 (unreadable); returns the shared error code. */
QM_EXPORT int get_firmware_progression(void);
/* "1" into Ssi when /bin/tar exists, else "0"; clears the shared error. */
QM_EXPORT int get_tar_support(void);
/* Option 2: configuration back to factory defaults; others do nothing. */
QM_EXPORT void SaveConfig(int option);

#ifdef __cplusplus
}
#endif

#endif
