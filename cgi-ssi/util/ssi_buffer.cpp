// The shared SSI output buffer; its printing lives with the SSI engine.

#include "ssi_buffer.h"

// C linkage and export come from the declaration in ssi_buffer.h.
char Ssi[SSI_BUFFER_SIZE];
