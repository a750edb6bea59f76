#include "request/multipart_parser.h"

#include <algorithm>
#include <cstring>

namespace cgissi::request {
namespace {

// step(): go on with the next delimiter.
constexpr int kContinue = -2;

constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::string_view kClosing = "--\r\n";
// Content ends with the line end that precedes the next delimiter.
constexpr std::size_t kLineEnd = 2;
// An attribute's value starts behind '="'.
constexpr std::size_t kValueSkip = 2;

constexpr std::string_view kInvalidStream = "Error : invalid stream received";
constexpr std::string_view kReadError = "Error : io read error";
// compat: the product's wording, quote and line end included.
constexpr std::string_view kQuoteMissing = "Syntax Error : '\"' not found\n";

// Value of an attribute whose word ends at `after_word`; false when it has
// no closing quote or is too long for the product's 1024-byte fields.
bool attribute_value(std::string_view header, std::size_t after_word, std::string &value) {
    const std::size_t start = after_word + kValueSkip;
    if (start > header.size()) return false;
    const std::size_t quote = header.find('"', start);
    if (quote == std::string_view::npos || quote - start >= kMultipartNameSize - 1) return false;
    value.assign(header.substr(start, quote - start));
    return true;
}

// Bytes at the end of a body buffer that may be the line end before a
// delimiter that has not arrived yet; they are held back so that content
// never has to be taken back.
std::size_t pending_line_end(std::string_view data) {
    if (data.ends_with("\r\n")) return 2;
    if (data.ends_with('\r')) return 1;
    return 0;
}

}  // namespace

BoundaryMatch find_boundary(std::string_view data, std::string_view delimiter) {
    for (std::size_t at = data.find('-'); at != std::string_view::npos; at = data.find('-', at + 1)) {
        const std::string_view rest = data.substr(at);
        if (rest.size() >= delimiter.size()) {
            if (rest.starts_with(delimiter)) return {BoundaryStatus::found, at};
        } else if (delimiter.starts_with(rest)) {
            return {BoundaryStatus::partial, at};
        }
    }
    return {};
}

// The first "name" may be the one inside "filename" when no name attribute
// comes before it; the product reads headers this way and pages depend on
// nothing else. A part's own Content-Type line is not read. A kind is only
// taken when its value could be read.
PartHeader parse_part_header(std::string_view header, MultipartEvents &events) {
    PartHeader part;
    constexpr std::string_view kName = "name";
    constexpr std::string_view kFilename = "filename";
    const std::size_t name = header.find(kName);
    if (name == std::string_view::npos) return part;
    if (!attribute_value(header, name + kName.size(), part.name)) {
        events.log(kQuoteMissing);
        return part;
    }
    part.kind = PartKind::field;
    const std::size_t filename = header.find(kFilename);
    if (filename == std::string_view::npos) return part;
    if (!attribute_value(header, filename + kFilename.size(), part.filename)) {
        events.log(kQuoteMissing);
        part.filename.clear();
        return part;
    }
    part.kind = PartKind::file;
    return part;
}

MultipartParser::MultipartParser(std::string_view boundary, MultipartEvents &events)
    : events_(events), delimiter_(std::string("--").append(boundary)) {}

int MultipartParser::feed(std::string_view bytes) {
    while (!bytes.empty() && result_ == kMultipartPending) {
        const std::size_t take = std::min(bytes.size(), buffer_.size() - used_);
        std::memcpy(buffer_.data() + used_, bytes.data(), take);
        used_ += take;
        bytes.remove_prefix(take);
        run(false);
    }
    return result_;
}

int MultipartParser::finish() {
    if (result_ == kMultipartPending) run(true);
    return result_;
}

void MultipartParser::run(bool at_end) {
    for (;;) {
        const int step_result = step(at_end);
        if (step_result == kContinue) continue;
        if (step_result != kMultipartPending) result_ = step_result;
        return;
    }
}

int MultipartParser::invalid() {
    events_.log(kInvalidStream);
    return kMultipartInvalid;
}

void MultipartParser::keep_from(std::size_t offset) {
    std::memmove(buffer_.data(), buffer_.data() + offset, used_ - offset);
    used_ -= offset;
}

// One pass over a full buffer (or the last bytes of the body).
int MultipartParser::step(bool at_end) {
    if (!at_end && used_ < buffer_.size()) return kMultipartPending;
    const std::string_view data(buffer_.data(), used_);
    const BoundaryMatch match = find_boundary(data, delimiter_);
    if (match.status == BoundaryStatus::found) return in_body_ ? end_of_part(match.offset) : start_part(match.offset);
    if (at_end) {
        // The body ended before its closing delimiter.
        events_.log(kReadError);
        return kMultipartIoError;
    }
    std::size_t content = match.status == BoundaryStatus::partial ? match.offset : used_;
    if (in_body_) content -= pending_line_end(data.substr(0, content));
    if (content == 0) return invalid();  // a full buffer that cannot move on
    if (const int emitted = emit(content); emitted != kContinue) return emitted;
    keep_from(content);
    return kContinue;
}

int MultipartParser::emit(std::size_t length) {
    if (length == 0) return kContinue;
    if (kind_ == PartKind::none) return invalid();
    if (kind_ == PartKind::field) {
        field_bytes_ += length;
        if (field_bytes_ > kMaxFieldBytes) return invalid();
    }
    part_bytes_ += length;
    const int result = events_.content(kind_, std::string_view(buffer_.data(), length));
    return result == 0 ? kContinue : result;
}

int MultipartParser::end_of_part(std::size_t delimiter) {
    // The line end before the delimiter is not content; a delimiter with
    // none before it ends the part with what came before it.
    const std::size_t content = delimiter >= kLineEnd ? delimiter - kLineEnd : delimiter;
    if (const int emitted = emit(content); emitted != kContinue) return emitted;
    if (const int ended = events_.end_part(kind_, part_bytes_ == 0); ended != 0) return ended;
    keep_from(content);
    in_body_ = false;
    kind_ = PartKind::none;
    return kContinue;
}

int MultipartParser::start_part(std::size_t delimiter) {
    const std::size_t after = delimiter + delimiter_.size();
    const std::string_view rest(buffer_.data() + after, used_ - after);
    if (rest.starts_with(kClosing)) return kMultipartSuccess;
    const std::size_t header_end = rest.find(kHeaderEnd);
    if (header_end == std::string_view::npos) return invalid();  // a header must fit the buffer
    const PartHeader part = parse_part_header(rest.substr(0, header_end), events_);
    if (part.kind == PartKind::none) return invalid();
    if (part.kind == PartKind::file) {
        // One file per body: the sink of the first is closed by now.
        if (file_seen_) return invalid();
        file_seen_ = true;
    }
    if (const int begun = events_.begin_part(part.kind, part.name, part.filename); begun != 0) {
        events_.log(kReadError);
        return begun;
    }
    keep_from(after + header_end + kHeaderEnd.size());
    in_body_ = true;
    kind_ = part.kind;
    part_bytes_ = 0;
    return kContinue;
}

}  // namespace cgissi::request
