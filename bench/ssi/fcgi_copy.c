/* The reference back end of the page benchmark: the least a FastCGI
 * responder can do for a page. For each request it writes a content type
 * and copies the file named by SCRIPT_FILENAME unchanged, so its rate is
 * the cost of the FastCGI round trip plus reading the file, with no
 * rendering at all. */
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <fcgi_stdio.h>

enum { kChunk = 64 * 1024 };

static char chunk[kChunk];

static void copy_page(const char *path) {
    int fd = path != NULL ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) {
        fputs("Status: 404 Not Found\r\nContent-type: text/plain\r\n\r\nno such page\n", stdout);
        return;
    }
    fputs("Content-type: text/html\r\n\r\n", stdout);
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0) {
        fwrite(chunk, 1, (size_t)got, stdout);
    }
    close(fd);
}

int main(void) {
    while (FCGI_Accept() >= 0) {
        copy_page(getenv("SCRIPT_FILENAME"));
    }
    return 0;
}
