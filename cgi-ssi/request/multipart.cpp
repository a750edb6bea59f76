// Multipart form bodies.
//
// The streaming multipart parser is not wired yet: the body is read and
// thrown away, so the connection stays in step, and the form stays empty.
#include "cgic.h"

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" int cgiParsePostMultipartInput(FCGI_FILE *) {
    flushinput(cgiContentLength);
    return 0;
}
