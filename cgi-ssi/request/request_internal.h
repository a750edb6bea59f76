// Internals shared by the request layer's files: limits, the pure parsing
// helpers behind the C calls of cgic.h, and list ownership.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "cgic.h"
#include "quelm_owned.h"

namespace cgissi::request {

// Bodies of this many bytes or more (2 MiB + 1 KiB) are discarded and the
// request refused, unless the caller streams them into an upload sink.
constexpr int kMaxBodyWithoutSink = 0x200400;
// Chunk size in which unwanted input is read and thrown away.
constexpr std::size_t kDiscardChunk = 1024;
// Buffer into which cgiCookieInteger reads the cookie's text.
constexpr int kCookieIntegerSize = 256;

// A malloc'd string: form entries and returned arrays are plain C memory
// because plugins receive them through the C interface.
using quelm::MallocString;

// malloc'd, terminated copy of text; null when out of memory.
MallocString copy_text(std::string_view text);

// URL-unescapes text: "+" is a blank, "%" and the next two bytes are one
// byte (non-hex digits count 0), a "%" with fewer than two bytes after it
// and those bytes give nothing. Null when out of memory.
MallocString unescape(std::string_view text);

// Reads a body length variable the way atoi would (leading blanks, a sign,
// the digits up to the first other byte; no digits is 0). Returns false for
// a negative value or one beyond int: such a length must never size a read.
bool parse_length(const char *text, int *length);

// Splits a CONTENT_TYPE copy in place: cuts it at its first ";" and returns
// the value of its "boundary=" parameter (a pointer into the same buffer,
// ended at the first white space), or "" when there is none.
const char *split_content_type(char *content_type);

// Looks up one cookie in a Cookie header. The name must end exactly where a
// "=" stands; the value runs to the next ";" or the end.
bool find_cookie(std::string_view header, std::string_view name, std::string_view *value);

// FCGI_fread that reports failure as 0 bytes: libfcgi answers (size_t)EOF
// for a stream that is not set up.
std::size_t read_input(FCGI_FILE *stream, void *buffer, std::size_t size);

// atoi with out-of-range values saturated instead of undefined.
int leading_int(const char *text);

// A null-terminated array of malloc'd copies of items, as the C interface
// hands them out (free with cgiStringArrayFree); *out is null and the
// result cgiFormMemory when memory runs out.
cgiFormResultType string_array(const std::vector<std::string_view> &items, char ***out);

// Frees one entry and all its strings; unlinks a non-empty temporary file.
void free_entry(cgiFormEntry *entry);
// Frees a whole list from first on.
void free_entries(cgiFormEntry *first);
// Forgets the lookup's saved position (it points into the list).
void reset_search();

}  // namespace cgissi::request
