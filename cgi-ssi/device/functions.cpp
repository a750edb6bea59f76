// Named device functions (diagnostics, WPS, logs, reboot, ...), run from
// pages through "fct=" and from generic.cgi. None is in this build yet: the
// table is empty, so a call finds nothing and is answered as unknown.
#include "qm_generic.h"

extern "C" {

// One blank row: a C array cannot be empty. get_nbcgiplugins() says 0.
const cgi_plugin cgi_plugins[] = {{"", nullptr, 0}};

int get_nbcgiplugins(void) { return 0; }
}
