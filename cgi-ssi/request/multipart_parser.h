// The streaming multipart/form-data parser: bytes in, events out, no I/O.
//
// The body goes through one 4096-byte buffer. Bytes are collected until the
// buffer is full (or the body has ended), then the buffer is searched for
// one delimiter ("--" and the boundary) at a time. Content goes to the
// events as it is found, so a file part of any size passes through this
// fixed memory; field values are held by the events' owner and capped here.
// Any chunk size may be fed: the results do not depend on how the body was
// cut.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace cgissi::request {

// The read area: a part header must fit into it with its delimiter.
constexpr std::size_t kMultipartBufferSize = 4096;
// Names and file names of a part hold at most 1022 characters (plus the
// terminator of the product's 1024-byte fields, one byte never used).
constexpr std::size_t kMultipartNameSize = 1024;
// All field values of one body together; more is an invalid stream.
constexpr std::size_t kMaxFieldBytes = 64 * 1024;

// Parse results, as cgiParsePostMultipartInput returns them.
constexpr int kMultipartSuccess = 0;
constexpr int kMultipartIoError = 2;
constexpr int kMultipartStopped = 3;
constexpr int kMultipartInvalid = 4;
// feed(): more bytes are wanted.
constexpr int kMultipartPending = -1;

enum class PartKind { none = 0, field = 1, file = 2 };

// What a parse tells its owner. Calls come in the order of the body:
// begin_part, content pieces, end_part, and so on. Each int result is 0 to
// go on or the parse result to end with.
class MultipartEvents {
public:
    virtual ~MultipartEvents() = default;
    virtual int begin_part(PartKind kind, std::string_view name, std::string_view filename) = 0;
    virtual int content(PartKind kind, std::string_view bytes) = 0;
    // empty: the part had no content at all.
    virtual int end_part(PartKind kind, bool empty) = 0;
    // A message for the log, worded as the product logs it.
    virtual void log(std::string_view message) = 0;
};

// Where find_boundary stopped.
enum class BoundaryStatus { found = 0, none = 1, partial = 2 };

struct BoundaryMatch {
    BoundaryStatus status = BoundaryStatus::none;
    std::size_t offset = 0;  // of the delimiter's first "-" (found, partial)
};

// First delimiter in data; a delimiter cut off by the end of data is
// partial.
BoundaryMatch find_boundary(std::string_view data, std::string_view delimiter);

struct PartHeader {
    PartKind kind = PartKind::none;
    std::string name;
    std::string filename;
};

// Reads the name and filename of a part header (the text before its blank
// line). See the .cpp for the quirks kept.
PartHeader parse_part_header(std::string_view header, MultipartEvents &events);

class MultipartParser {
public:
    MultipartParser(std::string_view boundary, MultipartEvents &events);

    // Takes body bytes; kMultipartPending or the final result. Bytes after
    // a final result are ignored.
    int feed(std::string_view bytes);
    // The body has ended: parses what is buffered; the final result.
    int finish();

private:
    void run(bool at_end);
    int step(bool at_end);
    int emit(std::size_t length);
    int end_of_part(std::size_t delimiter);
    int start_part(std::size_t delimiter);
    void keep_from(std::size_t offset);
    int invalid();

    MultipartEvents &events_;
    std::string delimiter_;
    std::array<char, kMultipartBufferSize> buffer_{};
    std::size_t used_ = 0;
    bool in_body_ = false;
    PartKind kind_ = PartKind::none;
    std::size_t part_bytes_ = 0;
    std::size_t field_bytes_ = 0;
    bool file_seen_ = false;
    int result_ = kMultipartPending;
};

}  // namespace cgissi::request
