// Request set-up and tear-down: the CGI environment globals, the body length
// and its limits, and the choice of form parser.
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgic.h"
#include "quelm_chars.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "request/request_internal.h"
#include "request/variables.h"

extern "C" {
const char *cgiServerSoftware = "";
const char *cgiServerName = "";
const char *cgiGatewayInterface = "";
const char *cgiServerProtocol = "";
const char *cgiServerPort = "";
const char *cgiRequestMethod = "";
const char *cgiPathInfo = "";
const char *cgiPathTranslated = "";
const char *cgiScriptName = "";
const char *cgiQueryString = "";
const char *cgiRemoteHost = "";
const char *cgiRemoteAddr = "";
const char *cgiAuthType = "";
const char *cgiRemoteUser = "";
const char *cgiRemoteIdent = "";
const char *cgiHttpHost = "";
const char *cgiXForwardedFor = "";
const char *cgiAccept = "";
const char *cgiUserAgent = "";
const char *cgiReferrer = "";
const char *cgiCookie = "";

char cgiContentType[CGIC_CONTENT_TYPE_SIZE] = "";
const char *cgiMultipartBoundary = "";
int cgiContentLength = 0;
FCGI_FILE *cgiIn = nullptr;
FCGI_FILE *cgiOut = nullptr;
cgiFormEntry *cgiFormEntryFirst = nullptr;
int cgiRestored = 0;
int firstCookie = 0;
volatile sig_atomic_t got_sigpipe = 0;
int cgiHexValue[256] = {};
}

namespace cgissi::request {
namespace {

constexpr std::string_view kTempTemplate = "/var/tmp/cgicXXXXXX";
constexpr std::string_view kBoundaryParameter = "boundary=";
// Upload temporaries are the responder's own: nobody else reads them.
constexpr mode_t kTempFileMode = 0600;

// HTTP status of the last refusal (see cgiRefusedStatus).
int refused_status = 0;

// Filled before main so that the unescaper works even in code that parses
// without a request (tests, tools); every cgiInitResources refills it.
const bool hex_table_ready = (cgiSetupConstants(), true);

// Refuses the request: the form is dropped and the reason kept for the
// handler's answer.
int refuse(int status) {
    cgiFreeResources();
    refused_status = status;
    return -1;
}

// Status for a failed urlencoded parse (1 out of memory, 2 and 3 short body).
int parse_failure_status(int result) { return result == 1 ? 500 : 400; }

// Reads and drops the rest of a stream.
void drain(FCGI_FILE *stream) {
    char chunk[kDiscardChunk];
    while (read_input(stream, chunk, sizeof chunk) > 0) {
    }
}

}  // namespace

std::size_t read_input(FCGI_FILE *stream, void *buffer, std::size_t size) {
    std::size_t got = FCGI_fread(buffer, 1, size, stream);
    return got <= size ? got : 0;
}

bool parse_length(const char *text, int *length) {
    *length = 0;
    if (text == nullptr) return true;
    const char *end = nullptr;
    const long value = quelm::parse_long(text, &end);
    if (end == text) return true;  // not a number: no body
    if (value < 0) return false;
    if (value > INT_MAX) return false;
    *length = static_cast<int>(value);
    return true;
}

const char *split_content_type(char *content_type) {
    char *semicolon = std::strchr(content_type, ';');
    while (semicolon != nullptr) {
        *semicolon = '\0';
        char *parameter = semicolon + 1;
        while (quelm::is_c_space(*parameter)) ++parameter;
        if (cgiStrBeginsNc(parameter, kBoundaryParameter.data()) != 0) {
            char *boundary = parameter + kBoundaryParameter.size();
            char *end = boundary;
            while (*end != '\0' && !quelm::is_c_space(*end)) ++end;
            *end = '\0';
            return boundary;
        }
        semicolon = std::strchr(parameter, ';');
    }
    return "";
}

}  // namespace cgissi::request

using namespace cgissi::request;

namespace {

// A failed multipart parse: the handler goes on with an empty form.
constexpr int kMultipartFailed = 1;

// The request's CGI variables, its content type and the body length
// (`length_text`: CONTENT_LENGTH, or a filter's FCGI_DATA_LENGTH).
void capture_server_variables(const char *&role, const char *&length_text, const char *&data_length_text) {
    cgiSetupConstants();
    const char *const *values = variables();
    const auto value = [&](Variable which) {
        const char *text = values[static_cast<std::size_t>(which)];
        return text != nullptr ? text : "";
    };
    cgiServerSoftware = value(Variable::ServerSoftware);
    cgiServerName = value(Variable::ServerName);
    cgiGatewayInterface = value(Variable::GatewayInterface);
    cgiServerProtocol = value(Variable::ServerProtocol);
    cgiServerPort = value(Variable::ServerPort);
    cgiRequestMethod = value(Variable::RequestMethod);
    cgiPathInfo = value(Variable::PathInfo);
    cgiPathTranslated = value(Variable::PathTranslated);
    cgiScriptName = value(Variable::ScriptName);
    cgiQueryString = value(Variable::QueryString);
    cgiRemoteHost = value(Variable::RemoteHost);
    cgiRemoteAddr = value(Variable::RemoteAddr);
    cgiAuthType = value(Variable::AuthType);
    cgiRemoteUser = value(Variable::RemoteUser);
    cgiRemoteIdent = value(Variable::RemoteIdent);
    cgiHttpHost = value(Variable::HttpHost);
    cgiXForwardedFor = value(Variable::XForwardedFor);
    cgiAccept = value(Variable::HttpAccept);
    cgiUserAgent = value(Variable::HttpUserAgent);
    cgiReferrer = value(Variable::HttpReferer);
    cgiCookie = value(Variable::HttpCookie);
    const char *content_type = value(Variable::ContentType);
    role = value(Variable::FcgiRole);
    length_text = value(Variable::ContentLength);
    data_length_text = value(Variable::FcgiDataLength);

    std::size_t type_length = ::strnlen(content_type, sizeof cgiContentType - 1);
    std::memcpy(cgiContentType, content_type, type_length);
    cgiContentType[type_length] = '\0';
    cgiMultipartBoundary = split_content_type(cgiContentType);
}

// Parses the form the method and content type call for; 0 or the result
// cgiInitResources returns.
int parse_form(FCGI_FILE *upload_sink) {
    if (cgiStrEqNc(cgiRequestMethod, "post") != 0) {
        if (cgiStrEqNc(cgiContentType, "application/x-www-form-urlencoded") != 0) {
            if (int result = cgiParsePostFormInput(); result != 0) return refuse(parse_failure_status(result));
        } else if (cgiStrEqNc(cgiContentType, "multipart/form-data") != 0) {
            if (cgiParsePostMultipartInput(upload_sink) != 0) {
                // Kept on purpose: a failed multipart parse lets the handler
                // go on with an empty form (and leaves firstCookie as it was).
                cgiFreeResources();
                return kMultipartFailed;
            }
        }
        // Any other body is left unread.
    } else if (cgiStrEqNc(cgiRequestMethod, "get") != 0) {
        std::size_t query_length = std::strlen(cgiQueryString);
        if (query_length > static_cast<std::size_t>(INT_MAX)) return refuse(400);
        cgiContentLength = static_cast<int>(query_length);
        if (int result = cgiParseGetFormInput(); result != 0) return refuse(parse_failure_status(result));
    }
    return 0;
}

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" void cgiSetupConstants(void) {
    static constexpr auto kHexValues = [] {
        std::array<int, 256> values{};
        for (int digit = 0; digit < 10; ++digit) values['0' + digit] = digit;
        for (int letter = 0; letter < 6; ++letter) {
            values['A' + letter] = 10 + letter;
            values['a' + letter] = 10 + letter;
        }
        return values;
    }();
    static_assert(sizeof kHexValues == sizeof cgiHexValue);
    std::memcpy(cgiHexValue, kHexValues.data(), sizeof cgiHexValue);
}

extern "C" void cgiGetenv(const char **target, const char *name) {
    const char *value = std::getenv(name);
    *target = value != nullptr ? value : "";
}

extern "C" void flushinput(int length) {
    FCGI_FILE *in = cgiIn != nullptr ? cgiIn : FCGI_stdin;
    char chunk[kDiscardChunk];
    while (length > 0) {
        std::size_t want = static_cast<std::size_t>(length) < sizeof chunk ? static_cast<std::size_t>(length)
                                                                            : sizeof chunk;
        std::size_t got = read_input(in, chunk, want);
        if (got == 0) return;
        length -= static_cast<int>(got);
    }
}

extern "C" cgiFormEntry *getFormEntries(void) { return cgiFormEntryFirst; }

extern "C" int cgiRefusedStatus(void) { return refused_status; }

extern "C" void cgiFreeResources(void) {
    refused_status = 0;
    reset_search();
    free_entries(cgiFormEntryFirst);
    cgiFormEntryFirst = nullptr;
    cgiRestored = 0;
}

extern "C" int cgiInitResources(FCGI_FILE *upload_sink) {
    got_sigpipe = 0;

    const char *role = nullptr, *content_length = nullptr, *data_length = nullptr;
    capture_server_variables(role, content_length, data_length);

    // A filter's data stream follows its standard input, which is not used.
    const char *length_text = content_length;
    if (std::strcmp(role, "FILTER") == 0) {
        drain(FCGI_stdin);
        FCGI_StartFilterData();
        length_text = data_length;
    }

    int length = 0;
    bool length_usable = parse_length(length_text, &length);
    cgiContentLength = length;

    // The responder lives on, so a list that an earlier handler did not
    // free (with its temporary files) is released here rather than lost.
    cgiFreeResources();
    cgiIn = FCGI_stdin;
    cgiOut = FCGI_stdout;

    // A negative or oversized length cannot tell how much to read: nothing
    // is read and the request is refused.
    if (!length_usable) return refuse(400);

    if (upload_sink == nullptr && cgiContentLength >= kMaxBodyWithoutSink) {
        // Consumed before refusing, so the connection stays in step.
        flushinput(cgiContentLength);
        return refuse(413);
    }

    const int parsed = parse_form(upload_sink);
    if (parsed == kMultipartFailed) return 0;
    if (parsed != 0) return parsed;

    firstCookie = 1;
    return 0;
}

extern "C" int getTempFileName(char *buffer, size_t size) {
    if (buffer == nullptr || !quelm::root_path(kTempTemplate, buffer, size)) return 2;
    quelm::UniqueFd fd(::mkostemp(buffer, O_CLOEXEC));
    if (!fd) return 2;
    // mkstemp already makes the file 0600; the mode is set again so that a
    // umask or a different libc never widens it.
    if (::fchmod(fd.get(), kTempFileMode) != 0) {
        ::unlink(buffer);
        return 2;
    }
    return 0;
}
