#include "core/fcgi_request.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>
#include <fcgiapp.h>

#include "request/variables.h"

extern char **environ;

namespace cgissi::fcgi {
namespace {

// FCGI_RESPONDER of the FastCGI protocol, the role a request's begin record
// names (fcgiapp.h does not define the roles).
constexpr int kResponderRole = 1;

// libfcgi's stdio layer reads and writes through these three; FCGI_Accept
// would point them at its own request.
FCGI_FILE &stream(int which) { return _fcgi_sF[which]; }

// Process-wide because the stdio layer's streams and the environment are:
// one request at a time is open.
struct Loop {
    bool started = false;
    bool plain_cgi = false;
    bool served_plain = false;
    bool open = false;
    FCGX_Request request{};
};

Loop &loop() {
    static Loop l;
    return l;
}

// The request's CONTENT_LENGTH, or null. A pass over the parameters that
// looks at two bytes of most (FCGX_GetParam calls strncmp on each).
const char *content_length(char **envp) {
    static constexpr std::string_view kName = "CONTENT_LENGTH=";
    for (char **p = envp; p != nullptr && *p != nullptr; ++p) {
        const char *entry = *p;
        if (entry[0] == 'C' && entry[1] == 'O' && std::strncmp(entry, kName.data(), kName.size()) == 0) {
            return entry + kName.size();
        }
    }
    return nullptr;
}

// True when the web server can send nothing more for this request, so the
// connection may be closed without waiting for its end. A request that said
// its body is empty is followed only by the end of its input stream, which
// the server sends with the parameters; reading it costs no wait. A request
// with a body (or one whose length is not given, as with a streamed upload)
// counts as ended only once the handler has read its input to the end.
bool input_ended(FCGX_Request &request) {
    if (request.in == nullptr) return false;
    if (FCGX_HasSeenEOF(request.in) != 0) return true;
    // A filter's input may have been switched to its data stream.
    if (request.role != kResponderRole) return false;
    const char *length = content_length(request.envp);
    if (length == nullptr || std::strcmp(length, "0") != 0) return false;
    return FCGX_GetChar(request.in) == EOF;
}

void release_streams() {
    for (int which = 0; which < 3; ++which) stream(which).fcgx_stream = nullptr;
    // The parameters the environment pointed at are freed with the request.
    environ = nullptr;
    request::forget_variables();
}

void finish_at_exit() { finish_request(); }

}  // namespace

bool accept_request() {
    Loop &l = loop();
    if (!l.started) {
        l.started = true;
        l.plain_cgi = FCGX_IsCGI() != 0;
        if (!l.plain_cgi) {
            if (FCGX_Init() != 0 || FCGX_InitRequest(&l.request, 0, 0) != 0) return false;
            // A handler that exits still finishes its request, as libfcgi's
            // own loop arranges.
            std::atexit(finish_at_exit);
        }
    }
    if (l.plain_cgi) {
        if (l.served_plain) return false;
        l.served_plain = true;
        FILE *own[3] = {stdin, stdout, stderr};
        for (int which = 0; which < 3; ++which) stream(which) = FCGI_FILE{own[which], nullptr};
        return true;
    }
    finish_request();
    if (FCGX_Accept_r(&l.request) < 0) return false;
    l.open = true;
    FCGX_Stream *own[3] = {l.request.in, l.request.out, l.request.err};
    for (int which = 0; which < 3; ++which) stream(which) = FCGI_FILE{nullptr, own[which]};
    environ = l.request.envp;
    request::forget_variables();
    return true;
}

void finish_request() {
    Loop &l = loop();
    if (!l.open) return;
    l.open = false;
    // Detached, the connection is closed without libfcgi's wait for the
    // server's end.
    if (input_ended(l.request)) FCGX_Detach(&l.request);
    FCGX_Finish_r(&l.request);
    release_streams();
}

}  // namespace cgissi::fcgi
