// The one JSON writer of the web back end: objects, keys and values written
// straight to the response of the current request, in the byte layout each
// kind of answer has always had.
//
//     json::Writer answer(json::kAnswerLayout);
//     answer.begin_object();
//     answer.key("Device_Name");
//     answer.string(value, json::Escape::output_mode);
//     answer.end_object();                  // {"Device_Name" : "..."}
//
// A Writer only tracks where separators go; it owns no output: it writes
// to the response, or appends to a caller's buffer that the caller then
// writes in one piece (the same bytes). Keys are always escaped as JSON;
// values are escaped as the caller says.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace cgissi::json {

// How the bytes of a string value reach the output.
enum class Escape {
    strict,       // JSON: '"', '\\' and control bytes escaped (keys, fixed texts)
    output_mode,  // through ssiprintf: escaped for the current SSI output mode
    verbatim,     // a producer's text, already in the form the pages expect
};

// Byte layout of one kind of answer (see json_writer.cpp for why there are
// several).
struct Layout {
    std::string_view member_separator;
    std::string_view key_separator;
    // Braces and member separators go through ssiprintf like the values
    // instead of straight to the output.
    bool punctuation_through_output_mode;
};

// Result trees of data-model reads (dump_JSON_tree).
inline constexpr Layout kTreeLayout{",", " : ", true};
// The one object "generic.cgi" answers.
inline constexpr Layout kAnswerLayout{", ", " : ", false};
// The JSON answer of "login.cgi".
inline constexpr Layout kLoginLayout{", ", ": ", false};

// What a secret value is shown as.
inline constexpr std::string_view kMask = "********";

// JSON string content: '"' and '\\' preceded by '\\', control bytes as
// \u00XX, everything else unchanged.
std::string escape_strict(std::string_view text);

// A secret as it may be shown: its leading "," kept, anything after them
// replaced by kMask; an empty value stays empty.
std::string masked(std::string_view secret);

// Output gathered for one write to the response: appends without the
// bookkeeping of std::string, growing by doubling (with realloc, which
// moves a large buffer without copying it).
class OutBuffer {
public:
    OutBuffer() = default;
    // Room for `expected` bytes from the start, so that a large answer is
    // not copied as it grows.
    explicit OutBuffer(std::size_t expected) { grow(expected); }
    OutBuffer(const OutBuffer &) = delete;
    OutBuffer &operator=(const OutBuffer &) = delete;
    ~OutBuffer() { std::free(data_); }

    // At least n writable bytes at the end; commit() what was written.
    char *room(std::size_t n) {
        if (capacity_ - size_ < n) grow(n);
        return data_ + size_;
    }
    void commit(std::size_t n) { size_ += n; }
    void append(std::string_view text) {
        char *at = room(text.size());
        // Most appends are punctuation: a call to memcpy costs more.
        if (text.size() == 1) {
            *at = text[0];
        } else {
            std::memcpy(at, text.data(), text.size());
        }
        size_ += text.size();
    }
    void append(char c) {
        *room(1) = c;
        ++size_;
    }
    std::string_view view() const { return {data_, size_}; }
    std::size_t capacity() const { return capacity_; }
    // Empty again, keeping its memory; release() gives the memory back.
    void clear() { size_ = 0; }
    void release() {
        std::free(data_);
        data_ = nullptr;
        size_ = capacity_ = 0;
    }

private:
    void grow(std::size_t n);
    char *data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

class Writer {
public:
    explicit Writer(const Layout &layout) : layout_(layout) {}
    Writer(const Layout &layout, OutBuffer &buffer) : layout_(layout), buffer_(&buffer) {}

    void begin_object();
    void end_object();
    // Member separator when the object already has a member, then the key
    // in double quotes and the key separator. The value may be left out:
    // the key is then followed by nothing.
    void key(std::string_view name);
    // "name":"value" with no blanks, strict escaping for both.
    void compact_member(std::string_view name, std::string_view value);
    void string(std::string_view value, Escape escape);
    // A secret's value as a string: masked when mask is true.
    void secret(std::string_view value, bool mask, Escape escape);
    // A member whose value is a string escaped for the output mode, in one
    // step: the bytes of key(name) then secret(value, mask,
    // Escape::output_mode).
    void output_member(std::string_view name, std::string_view value, bool mask);
    void number(long value);
    // Text that is JSON already (a device function's answer).
    void raw(std::string_view json);

private:
    void punctuation(std::string_view text);
    // Buffered punctuation written at `at` (room for text); returns the end.
    char *put_punctuation(char *at, std::string_view text) const;
    void separate();
    void write_out(std::string_view text);
    void write_escaped(std::string_view text);
    void write_output_mode(std::string_view text);

    Layout layout_;
    OutBuffer *buffer_ = nullptr;  // null: straight to the response
    // One entry per open object: whether it has a member yet ('\0' or
    // '\1'). A string, so that the usual few levels of nesting need no
    // allocation.
    std::string has_member_;
};

}  // namespace cgissi::json
