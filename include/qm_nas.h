/*
 * The NAS media service "nas.cgi": files, uploads, thumbnails, playlists,
 * folder listings and EXIF data of the disks mounted under /var/mnt/<disk>,
 * under the access policy of Services_NAS.
 */
#ifndef QM_NAS_H
#define QM_NAS_H

#include <stddef.h>

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Feature kinds of check_extern_access. */
enum { NAS_KIND_WEBCAM = 0, NAS_KIND_DISK = 1, NAS_KIND_MUSIC = 2, NAS_KIND_PICTURES = 3 };

/* "nas.cgi"; always returns 0. */
QM_EXPORT int nas_cgi(int argc, char **argv);
/* 1 when the feature kind is open to this request ("all", or "local" and a
 * local request), else 0; unknown kinds are closed. */
QM_EXPORT int check_extern_access(int kind);
/* 1 when the request's Host names the gateway (host name, aliases, or an
 * address of its LAN subnet), else 0. */
QM_EXPORT int is_local_address(void);
/* Dotted quad to a number, first byte most significant; -1 when invalid. */
QM_EXPORT long my_ipword(const char *text);
/* Value of key in PATH_INFO "/key/value/...": with rest 0 up to the next
 * "/", with rest 1 everything after "/key/"; cut to size - 1 bytes. Returns
 * 0 when found, else sets and returns the shared error (24). */
QM_EXPORT int pathinfo_get_parm(const char *path_info, const char *key, char *output, size_t size, int rest);
/* SSI symbols sNasPlaylists and sNasFullPlaylists: every playlist of every
 * disk, "disk\tname\v" (full: "disk\tname\tcount\v"), through ssiprintf. */
QM_EXPORT int get_nas_playlists(void);
QM_EXPORT int get_nas_fullplaylists(void);

#ifdef __cplusplus
}
#endif

#endif
