// The built-in CGI handlers, each called with the request's (argc, argv)
// after the session is attached; each parses the request itself and writes
// its own headers and body. Zero means success.
#pragma once

// The handlers that are built declare themselves in their public headers.
#include "qm_generic.h"  // generic_cgi
#include "qm_login.h"    // login_cgi
#include "ssi.h"         // ssi, the page renderer

extern "C" {
int reboot_cgi(int argc, char **argv);
int firmware_user_cgi(int argc, char **argv);
int nas_cgi(int argc, char **argv);
int firmware_cgi(int argc, char **argv);
int import_cgi(int argc, char **argv);
int export_cgi(int argc, char **argv);
int info_xml_cgi(int argc, char **argv);
}
