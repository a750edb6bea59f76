/*
 * The process-wide SSI output buffer. Value producers (symbols, device
 * functions, the CGI error reader) write one value into it, terminated,
 * and the SSI engine prints it in the page's output mode. It is reset per
 * request by whoever fills it; nothing here keeps state besides the bytes.
 */
#ifndef SSI_BUFFER_H
#define SSI_BUFFER_H

#include "qm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SSI_BUFFER_SIZE = 4096 /* bytes including the terminator */
};

QM_EXPORT extern char Ssi[SSI_BUFFER_SIZE];

#ifdef __cplusplus
}
#endif

#endif
