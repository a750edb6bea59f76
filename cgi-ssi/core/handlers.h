// The built-in CGI handlers, each called with the request's (argc, argv)
// after the session is attached; each parses the request itself and writes
// its own headers and body. Zero means success.
#pragma once

#include "ssi.h"  // ssi(), the page renderer, is the SSI engine's

extern "C" {
int reboot_cgi(int argc, char **argv);
int firmware_user_cgi(int argc, char **argv);
int nas_cgi(int argc, char **argv);
int generic_cgi(int argc, char **argv);
int firmware_cgi(int argc, char **argv);
int login_cgi(int argc, char **argv);
int import_cgi(int argc, char **argv);
int export_cgi(int argc, char **argv);
int info_xml_cgi(int argc, char **argv);
}
