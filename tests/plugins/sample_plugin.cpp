// A plugin as another package would ship it: two CGIs and one data-model
// function, loaded from /lib by the registry. It uses only the executable's
// public C interface.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_generic.h"
#include "qm_plugin.h"
#include "ssi_buffer.h"

namespace {

// A query "rc=N" makes the entry return N, so that callers' handling of a
// failing plugin can be seen.
int requested_result() {
    const char *query = std::getenv("QUERY_STRING");
    return query != nullptr && std::strncmp(query, "rc=", 3) == 0 ? std::atoi(query + 3) : 0;
}

int answer(const char *kind, int argc, char **argv) {
    cgi_out_printf("Content-type: text/plain\r\n\r\n%s plugin: argc=%d argv0=%s\n", kind, argc,
                   argc > 0 && argv[0] != nullptr ? argv[0] : "");
    return requested_result();
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int sample_cgi(int argc, char **argv) { return answer("sample", argc, argv); }

__attribute__((visibility("default"))) int sample_open_cgi(int argc, char **argv) {
    return answer("open", argc, argv);
}

// A form handler that failed: back to the form's "sErrorPage".
__attribute__((visibility("default"))) int sample_form_cgi(int, char **) {
    if (cgiInitResources(nullptr) != 0) return 1;
    getset_error_url();
    branch_dest_url();
    cgiFreeResources();
    return 0;
}

// "fct=" in a page reads Ssi; generic.cgi's "fct" field prints through
// tfprintf. A parameter "fail" answers 5.
__attribute__((visibility("default"))) int sample_function(const char *name, const char *method, const char *param) {
    if (std::strcmp(method, "ssi") == 0) {
        std::snprintf(Ssi, sizeof Ssi, "%s/%s/%s", name, method, param != nullptr ? param : "(none)");
    } else {
        tfprintf(nullptr, "\"%s/%s/%s\"", name, method, param != nullptr ? param : "(none)");
    }
    return param != nullptr && std::strcmp(param, "fail") == 0 ? 5 : 0;
}
}

