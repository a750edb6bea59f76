// The built-in CGI handlers, each called with the request's (argc, argv)
// after the session is attached; each parses the request itself and writes
// its own headers and body. Zero means success.
#pragma once

// The handlers that are built declare themselves in their public headers.
#include "qm_generic.h"  // generic_cgi
#include "qm_login.h"    // login_cgi
#include "qm_maintenance.h"  // firmware, reboot, import, export, _info.xml
#include "qm_nas.h"      // nas_cgi
#include "ssi.h"         // ssi, the page renderer
