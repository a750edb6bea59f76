// Named device functions (diagnostics, WPS, logs, reboot, ...), run from
// pages through "fct=" and from generic.cgi. None is in this build yet: the
// table is empty, so a call finds nothing and is answered as unknown.
#include "qm_generic.h"

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" {

// One blank row: a C array cannot be empty. get_nbcgiplugins() says 0.
const cgi_plugin cgi_plugins[] = {{"", nullptr, 0}};

int get_nbcgiplugins(void) { return 0; }
}
