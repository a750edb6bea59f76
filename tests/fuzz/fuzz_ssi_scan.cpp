// The SSI page scanner, the directive splitter and the CGI pattern
// matcher. The scanner must stay inside a page that has no terminator and
// give back every byte of it; the matcher must answer as plain
// backtracking does, in polynomial time.
//
// Input: the page. Its first line is also read as "pattern\ttext" for the
// matcher.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "ssi_parse.h"

namespace {

using namespace cgissi::ssi;

constexpr std::string_view kOpen = "<!--#";
constexpr std::string_view kClose = "-->";
// The reference matcher is exponential: only short cases go to it.
constexpr std::size_t kReferencePattern = 12;
constexpr std::size_t kReferenceText = 16;
// The matcher's table is pattern times text: on a 2,000-byte first line it
// took four fifths of the target's time. Its cells are filled alike at
// every size, so longer cases go to it cut to these lengths.
constexpr std::size_t kMatchedPattern = 128;
constexpr std::size_t kMatchedText = 512;

bool inside(std::string_view part, std::string_view whole) {
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

class Rebuilder final : public PageSink {
public:
    explicit Rebuilder(std::string_view page) : page_(page) {}
    std::string rebuilt;

    void text(std::string_view run) override {
        fuzz::require(inside(run, page_), "a text run outside the page");
        rebuilt.append(run);
    }
    bool directive(std::string_view from_open, std::string_view inner) override {
        fuzz::require(inside(from_open, page_) && inside(inner, page_), "a directive outside the page");
        fuzz::require(from_open.starts_with(kOpen), "a directive that does not start with <!--#");
        fuzz::require(inner.size() < kDirectiveBufferSize, "a directive over its buffer");
        const std::size_t length = kOpen.size() + inner.size() + kClose.size();
        fuzz::require(from_open.size() >= length && from_open.substr(kOpen.size() + inner.size(), 3) == kClose,
                      "a directive that does not end with -->");
        Directive parsed;
        if (!parse_directive(inner, parsed)) return false;
        fuzz::require(parsed.attributes.size() <= kMaxAttributes, "more attributes than the limit");
        fuzz::require(inside(parsed.name, inner), "a directive name outside its text");
        for (const Attribute &a : parsed.attributes)
            fuzz::require(inside(a.name, inner) && inside(a.value, inner), "an attribute outside its text");
        directive_kind(parsed.name);
        int section = 0;
        section_tag(from_open, section);
        rebuilt.append(from_open.substr(0, length));
        return true;
    }

private:
    std::string_view page_;
};

// Longest-first backtracking over one alternative.
bool reference_one(std::string_view p, std::string_view t) {
    if (p.empty()) return t.empty();
    if (p.starts_with("**")) {
        for (std::size_t k = t.size() + 1; k-- > 0;)
            if (reference_one(p.substr(2), t.substr(k))) return true;
        return false;
    }
    if (p[0] == '*') {
        std::size_t most = 0;
        while (most < t.size() && t[most] != '/') ++most;
        for (std::size_t k = most + 1; k-- > 0;)
            if (reference_one(p.substr(1), t.substr(k))) return true;
        return false;
    }
    if (t.empty() || (p[0] != '?' && p[0] != t[0])) return false;
    return reference_one(p.substr(1), t.substr(1));
}

bool reference(std::string_view pattern, std::string_view text) {
    for (;;) {
        const std::size_t bar = pattern.find('|');
        if (reference_one(pattern.substr(0, bar), text)) return true;
        if (bar == std::string_view::npos) return false;
        pattern.remove_prefix(bar + 1);
    }
}

void check_match(std::string_view line) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string_view::npos) return;
    const std::string_view pattern = line.substr(0, std::min(tab, kMatchedPattern));
    const std::string_view text = line.substr(tab + 1, kMatchedText);
    const bool answer = match(pattern, text);
    if (pattern.size() <= kReferencePattern && text.size() <= kReferenceText)
        fuzz::require(answer == reference(pattern, text), "the matcher differs from backtracking");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size > 1 << 16) return 0;
    // An exact-size copy: a read past the end is a heap overflow ASan sees.
    std::unique_ptr<char[]> copy(new char[size]);
    if (size != 0) std::memcpy(copy.get(), data, size);
    const std::string_view page(copy.get(), size);
    Rebuilder sink(page);
    scan_page(page, sink);
    fuzz::require(sink.rebuilt == page, "the page's runs do not give back the page");
    check_match(page.substr(0, page.find('\n')));
    mime_type(page.substr(0, page.find('\n')));
    return 0;
}
