// Urlencoded form parsing (query strings and POST bodies) and the form
// entry list's ownership.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <unistd.h>

#include "cgic.h"
#include "request/request_internal.h"

namespace cgissi::request {
namespace {

using EntryPtr = std::unique_ptr<cgiFormEntry, quelm::CDeleter<free_entry>>;

// The empty file name, content type and temporary name of every urlencoded
// field. Writable, as the C structure's fields are; a field pointing here
// was allocated in one piece with its name and value.
char urlencoded_empty[1];

// Writes text unescaped to out, which has room for text.size() + 1 bytes;
// returns the end of what was written (its terminator).
char *unescape_into(char *out, std::string_view text) {
    char *d = out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '+') {
            *d++ = ' ';
        } else if (c == '%') {
            if (text.size() - i - 1 < 2) break;  // an incomplete escape gives nothing
            int high = cgiHexValue[static_cast<unsigned char>(text[i + 1])];
            int low = cgiHexValue[static_cast<unsigned char>(text[i + 2])];
            *d++ = static_cast<char>(static_cast<unsigned char>(high * 16 + low));
            i += 2;
        } else {
            *d++ = c;
        }
    }
    *d = '\0';
    return d;
}

// One urlencoded field: the entry, its name and its value in one
// allocation; null when it cannot be had. Only the entry is zeroed: the
// name and the value are written up to their terminators, and nothing
// reads past those. (malloc, not calloc: glibc's calloc never takes the
// per-thread cache, and every field of every request comes here.)
EntryPtr make_entry(std::string_view name, std::string_view value) {
    const std::size_t size = sizeof(cgiFormEntry) + name.size() + 1 + value.size() + 1;
    EntryPtr entry(static_cast<cgiFormEntry *>(std::malloc(size)));
    if (!entry) return nullptr;
    *entry = cgiFormEntry{};
    entry->attr = reinterpret_cast<char *>(entry.get() + 1);
    entry->value = unescape_into(entry->attr, name) + 1;
    unescape_into(entry->value, value);
    // strlen, not the unescaped byte count: an escaped zero byte ends the value.
    entry->valueLength = static_cast<int>(std::strlen(entry->value));
    entry->fileName = urlencoded_empty;
    entry->contentType = urlencoded_empty;
    entry->tfileName = urlencoded_empty;
    return entry;
}

}  // namespace

MallocString copy_text(std::string_view text) {
    MallocString out(static_cast<char *>(std::malloc(text.size() + 1)));
    if (out) {
        std::memcpy(out.get(), text.data(), text.size());
        out.get()[text.size()] = '\0';
    }
    return out;
}

MallocString unescape(std::string_view text) {
    MallocString out(static_cast<char *>(std::malloc(text.size() + 1)));
    if (out) unescape_into(out.get(), text);
    return out;
}

void free_entry(cgiFormEntry *entry) {
    if (entry == nullptr) return;
    if (entry->fileName == urlencoded_empty) {  // one piece, no temporary file
        std::free(entry);
        return;
    }
    std::free(entry->attr);
    std::free(entry->value);
    std::free(entry->fileName);
    std::free(entry->contentType);
    if (entry->tfileName != nullptr && entry->tfileName[0] != '\0') ::unlink(entry->tfileName);
    std::free(entry->tfileName);
    std::free(entry);
}

void free_entries(cgiFormEntry *first) {
    while (first != nullptr) {
        cgiFormEntry *next = first->next;
        free_entry(first);
        first = next;
    }
}

}  // namespace cgissi::request

using namespace cgissi::request;

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" int cgiUnescapeChars(char **result, const char *text, int length) {
    std::string_view input;
    if (text != nullptr && length > 0) input = std::string_view(text, static_cast<std::size_t>(length));
    MallocString out = unescape(input);
    if (!out) return 1;
    *result = out.release();
    return 0;
}

extern "C" int cgiParseFormInput(const char *data, int length) {
    if (data == nullptr || length <= 0) return 0;
    std::string_view input(data, static_cast<std::size_t>(length));

    // Fields are appended in input order; find the end once so that a body
    // of many fields is not quadratic.
    cgiFormEntry **tail = &cgiFormEntryFirst;
    while (*tail != nullptr) tail = &(*tail)->next;

    std::size_t pos = 0;
    for (;;) {
        // A name runs to the next "=", even across "&" (kept on purpose:
        // existing pages post such forms). No "=" left: the rest is dropped.
        std::size_t equals = input.find('=', pos);
        if (equals == std::string_view::npos) return 0;
        std::size_t ampersand = input.find('&', equals + 1);
        std::size_t value_end = ampersand == std::string_view::npos ? input.size() : ampersand;

        EntryPtr entry = make_entry(input.substr(pos, equals - pos),
                                    input.substr(equals + 1, value_end - equals - 1));
        if (!entry) return 1;  // fields already appended stay
        *tail = entry.release();
        tail = &(*tail)->next;

        if (ampersand == std::string_view::npos) return 0;
        pos = ampersand + 1;
    }
}

extern "C" int cgiParseGetFormInput(void) { return cgiParseFormInput(cgiQueryString, cgiContentLength); }

extern "C" int cgiParsePostFormInput(void) {
    if (cgiContentLength <= 0) return 0;
    std::size_t length = static_cast<std::size_t>(cgiContentLength);
    MallocString body(static_cast<char *>(std::malloc(length + 1)));
    if (!body) return 1;
    FCGI_FILE *in = cgiIn != nullptr ? cgiIn : FCGI_stdin;
    std::size_t got = read_input(in, body.get(), length);
    if (got == 0) return 3;
    if (got < length) return 2;
    body.get()[length] = '\0';
    return cgiParseFormInput(body.get(), cgiContentLength);
}
