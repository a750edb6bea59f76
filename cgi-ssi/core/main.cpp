// Process entry of the FastCGI responder. Started by the web server under
// the name of the built-in CGI it serves; run with stdin not a socket, it
// serves exactly one request as a plain CGI.
#include <cstdlib>

#include "core/dispatch.h"
#include "core/fcgi_request.h"
#include "request/variables.h"
#include "qm_config.h"
#include "qm_session.h"
#include "quelm_guard.h"
#include "quelm_root.h"
#include "session/session_store.h"
#include "util/policy.h"

int main(int argc, char **argv) {
    // The environment is replaced by each request's parameters from here on.
    quelm::pin_process_environment();
    cgissi::policy::pin();

    plugin_registry_handle registry = nullptr;
    cgissi::init_cgi(&registry);
    cgissi::session::secure_store_directory();

    while (cgissi::fcgi::accept_request()) {
        QM_SessionRealm = cgissi::request::variable(cgissi::request::Variable::QuelmRealm);
        // One request's failure (memory exhaustion above all) ends that
        // request, not the responder.
        quelm::guarded(-1, "main_CGI", [&] { return main_CGI(&registry, argc, argv); });
    }
    QM_Cfg_Free();
    return 0;
}
