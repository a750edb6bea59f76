// The request's variables read in one pass over the environment.
//
// A request looks up the same few variables (the Host, the cookie, the
// realm, the method...) in many places; each getenv walks the whole
// environment, two dozen entries behind a web server. variable() answers
// from a table taken in one pass instead, and takes it again when the
// environment is not the one it was taken from: a new request's
// parameters (forget_variables), or a setenv, putenv or unsetenv since.
// Its answer is what getenv would give at that moment (variables.cpp says
// how a change is told). The table is the calling thread's.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cgissi::request {

enum class Variable : std::uint8_t {
    ServerSoftware,
    ServerName,
    GatewayInterface,
    ServerProtocol,
    ServerPort,
    RequestMethod,
    PathInfo,
    PathTranslated,
    ScriptName,
    QueryString,
    RemoteHost,
    RemoteAddr,
    AuthType,
    RemoteUser,
    RemoteIdent,
    HttpHost,
    XForwardedFor,
    HttpAccept,
    HttpUserAgent,
    HttpReferer,
    HttpCookie,
    ContentType,
    FcgiRole,
    ContentLength,
    FcgiDataLength,
    ScriptFilename,
    QuelmRealm,
    QuelmSrvIdx,
    HttpOrigin,
    HttpAcceptLanguage,
    DocumentRoot,
    RemotePort,
    RequestUri,
    ServerAddr,
    Https,
    Tz,
};
inline constexpr std::size_t kVariables = static_cast<std::size_t>(Variable::Tz) + 1;

// getenv of the variable's name: null when unset.
const char *variable(Variable which);

// The same, "" when unset (as the cgic globals hold it).
inline const char *variable_text(Variable which) {
    const char *text = variable(which);
    return text != nullptr ? text : "";
}

// The values of every variable (null when unset), as variable() would give
// each of them now.
const char *const *variables();

// The environment is about to stand for another request: what was taken
// from it is dropped. (Its array and strings may come back at the same
// addresses with other contents.)
void forget_variables();

}  // namespace cgissi::request
