/* The reference back end of the upload benchmark: the least a FastCGI
 * responder can do with an upload. It reads the request body to its end
 * in 64 KiB chunks, throws it away and answers with the byte count, so its
 * rate is the cost of lighttpd and the FastCGI stream alone. */
#include <stdlib.h>

#include <fcgi_stdio.h>

enum { kChunk = 64 * 1024 };

static char chunk[kChunk];

int main(void) {
    while (FCGI_Accept() >= 0) {
        const char *length = getenv("CONTENT_LENGTH");
        long long left = length != NULL ? atoll(length) : 0;
        long long total = 0;
        while (left > 0) {
            size_t want = left < kChunk ? (size_t)left : kChunk;
            size_t got = fread(chunk, 1, want, stdin);
            if (got == 0) break;
            left -= (long long)got;
            total += (long long)got;
        }
        printf("Content-type: text/plain\r\n\r\n%lld\n", total);
    }
    return 0;
}
