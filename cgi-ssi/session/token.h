// Access tokens of the current request.
#pragma once

#include "qm_export.h"

extern "C" {
// Token file name of the current request (owned, new[]), or null.
extern char *last_token_name;
// Forgets the current request's token name.
QM_EXPORT void remove_last_token_name(void);
}
