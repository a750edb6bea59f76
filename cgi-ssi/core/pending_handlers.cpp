// Built-in handlers whose features are not in this build yet. Each consumes
// the request like a real handler would and answers that nothing was found,
// so browsers and scripts get a clean HTTP answer instead of a broken one.
// A handler is removed from this file when its feature lands.
#include "cgi_output.h"
#include "cgic.h"
#include "core/handlers.h"

namespace {

int answer_not_found() {
    if (cgiInitResources(nullptr) != 0) {
        cgi_out_printf("Status: 500 Internal Server Error\r\n\r\n");
        return 1;
    }
    cgi_out_printf("Status: 404 Not Found\r\n\r\n");
    cgiFreeResources();
    return 1;
}

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" {
int nas_cgi(int, char **) { return answer_not_found(); }
}
