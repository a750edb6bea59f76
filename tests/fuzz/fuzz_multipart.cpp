// The streaming multipart parser, fed the same body twice: whole, and in
// reads of varying sizes so that delimiters and line ends fall across the
// borders of its 4096-byte buffer. The parts, the result and the caps must
// not depend on where the reads fell.
//
// Input: one byte that seeds the read sizes, the boundary up to the first
// "\n", then the body.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "request/multipart_parser.h"

namespace {

using namespace cgissi::request;

struct Part {
    PartKind kind = PartKind::none;
    std::string name, filename, content;
    bool empty = false, ended = false;
    bool operator==(const Part &) const = default;
};

class Recorder final : public MultipartEvents {
public:
    std::vector<Part> parts;

    int begin_part(PartKind kind, std::string_view name, std::string_view filename) override {
        fuzz::require(parts.empty() || parts.back().ended, "a part began before the previous one ended");
        fuzz::require(name.size() < kMultipartNameSize && filename.size() < kMultipartNameSize,
                      "a part name beyond its field");
        parts.push_back({kind, std::string(name), std::string(filename), {}});
        return 0;
    }
    int content(PartKind kind, std::string_view bytes) override {
        fuzz::require(!parts.empty() && !parts.back().ended && kind == parts.back().kind, "content outside a part");
        fuzz::require(!bytes.empty(), "an empty content piece");
        parts.back().content.append(bytes);
        if (kind == PartKind::field) field_bytes += bytes.size();
        return 0;
    }
    int end_part(PartKind kind, bool empty) override {
        fuzz::require(!parts.empty() && !parts.back().ended && kind == parts.back().kind, "end of no part");
        fuzz::require(!empty || parts.back().content.empty(), "a part with content reported empty");
        parts.back().empty = empty;
        parts.back().ended = true;
        return 0;
    }
    void log(std::string_view) override {}

    std::size_t field_bytes = 0;
};

// Read sizes from 1 to a little over two buffers, from a small generator
// seeded by the input, so that one input always cuts the same way.
class ReadSizes {
public:
    explicit ReadSizes(unsigned seed) : state_(seed * 2654435761u + 1) {}
    std::size_t next() {
        state_ = state_ * 1103515245u + 12345u;
        const unsigned pick = (state_ >> 16) & 0x7fff;
        switch (pick % 4) {
        case 0: return 1 + pick % 8;
        case 1: return kMultipartBufferSize - 8 + pick % 16;
        default: return 1 + pick % (2 * kMultipartBufferSize + 64);
        }
    }

private:
    unsigned state_;
};

int parse(std::string_view boundary, std::string_view body, Recorder &events, ReadSizes *sizes) {
    MultipartParser parser(boundary, events);
    int result = kMultipartPending;
    while (!body.empty() && result == kMultipartPending) {
        const std::size_t take = sizes == nullptr ? body.size() : std::min(sizes->next(), body.size());
        result = parser.feed(body.substr(0, take));
        body.remove_prefix(take);
    }
    return result == kMultipartPending ? parser.finish() : result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2 || size > 1 << 16) return 0;
    const unsigned seed = data[0];
    std::string_view rest = fuzz::text_of(data + 1, size - 1);
    const std::string_view boundary = fuzz::take_until(rest, '\n');

    Recorder whole;
    const int whole_result = parse(boundary, rest, whole, nullptr);
    fuzz::require(whole_result >= 0, "a final result below zero");
    fuzz::require(whole.field_bytes <= kMaxFieldBytes, "field values beyond their cap");
    std::size_t files = 0;
    for (const Part &p : whole.parts) files += p.kind == PartKind::file ? 1 : 0;
    fuzz::require(files <= 1, "a second file part was accepted");

    ReadSizes sizes(seed);
    Recorder cut;
    const int cut_result = parse(boundary, rest, cut, &sizes);
    fuzz::require(cut_result == whole_result, "the result depends on where the reads fell");
    fuzz::require(cut.parts == whole.parts, "the parts depend on where the reads fell");
    return 0;
}
