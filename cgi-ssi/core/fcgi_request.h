// The request loop's exchange with the web server: libfcgi's FCGI_Accept
// and FCGI_Finish, on a request the responder owns, so that an answer whose
// request has nothing more to send ends at once.
//
// libfcgi closes a connection by shutting down its write side and then
// waiting until the web server closes the other end, reading what is left;
// that keeps a reply from being lost to a reset while input is still coming.
// A responder that serves one request at a time sits idle through that wait
// (one more round trip through the web server's event loop per request).
// When the request's input has been read to its end, nothing can be left to
// read, so the connection is closed without the wait. A request with a body
// that may still be arriving is closed as libfcgi always did.
#pragma once

namespace cgissi::fcgi {

// Waits for the next request and points FCGI_stdin, FCGI_stdout,
// FCGI_stderr and the environment at it, finishing the previous one first.
// Run as a plain CGI (standard input not a socket), true exactly once, with
// the process's own streams. False when accepting fails: the loop ends.
bool accept_request();

// Finishes the current request: its output and closing records are written
// and the connection closed; the streams and the environment are let go.
// Does nothing as a plain CGI or when no request is open.
void finish_request();

}  // namespace cgissi::fcgi
