/* The reference back end of the page and data-model benchmarks: the least
 * a FastCGI responder can do for a page. For each request it writes a
 * content type and copies the file named by SCRIPT_FILENAME unchanged, so
 * its rate is the cost of the FastCGI round trip plus reading the file,
 * with no rendering at all.
 *
 * It ends its requests the way cgi-ssi does: a request whose input has
 * ended (a body of length 0, its end already read) is closed at once,
 * without libfcgi's wait for the web server to close its end first. Built
 * with COPY_LIBFCGI_CLOSE (bench-fcgi-copy-libfcgi), it runs libfcgi's own
 * stdio loop instead, which always waits. */
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>
#include <fcgiapp.h>

enum { kChunk = 64 * 1024 };

static char chunk[kChunk];

static void copy_page(const char *path) {
    int fd = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        FCGI_fputs("Status: 404 Not Found\r\nContent-type: text/plain\r\n\r\nno such page\n", FCGI_stdout);
        return;
    }
    FCGI_fputs("Content-type: text/html\r\n\r\n", FCGI_stdout);
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0) {
        FCGI_fwrite(chunk, 1, (size_t)got, FCGI_stdout);
    }
    close(fd);
}

#ifdef COPY_LIBFCGI_CLOSE

int main(void) {
    while (FCGI_Accept() >= 0) {
        copy_page(getenv("SCRIPT_FILENAME"));
    }
    return 0;
}

#else

extern char **environ;

static int input_ended(FCGX_Request *request) {
    if (FCGX_HasSeenEOF(request->in)) return 1;
    const char *length = FCGX_GetParam("CONTENT_LENGTH", request->envp);
    return length != NULL && strcmp(length, "0") == 0 && FCGX_GetChar(request->in) == EOF;
}

int main(void) {
    if (FCGX_IsCGI()) {
        _fcgi_sF[1].stdio_stream = stdout;
        copy_page(getenv("SCRIPT_FILENAME"));
        return 0;
    }
    FCGX_Request request;
    if (FCGX_Init() != 0 || FCGX_InitRequest(&request, 0, 0) != 0) return 1;
    while (FCGX_Accept_r(&request) >= 0) {
        _fcgi_sF[1].fcgx_stream = request.out;
        environ = request.envp;
        copy_page(FCGX_GetParam("SCRIPT_FILENAME", request.envp));
        if (input_ended(&request)) FCGX_Detach(&request);
        environ = NULL;
        FCGX_Finish_r(&request);
    }
    return 0;
}

#endif
