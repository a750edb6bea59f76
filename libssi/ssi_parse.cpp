// Pure parsing of SSI pages: the page scanner, the directive splitter, the
// section tags and the CGI pattern matcher.
#include <array>
#include <cstdint>
#include <vector>

#include "quelm_chars.h"
#include "ssi_parse.h"

namespace cgissi::ssi {
namespace {

constexpr std::string_view kOpen = "<!--#";
constexpr std::string_view kClose = "-->";
constexpr std::size_t kOpenLead = kOpen.size() - 1;  // "<!--" before the "#"

std::size_t skip_blanks(std::string_view text, std::size_t pos) {
    while (pos < text.size() && quelm::is_space_tab_cr_lf(text[pos])) ++pos;
    return pos;
}

std::size_t find_separator(std::string_view text, std::size_t pos) {
    for (; pos < text.size(); ++pos)
        if (quelm::is_space_tab_cr_lf(text[pos]) || text[pos] == '"') return pos;
    return std::string_view::npos;
}

Attribute split_attribute(std::string_view token) {
    Attribute a;
    std::size_t eq = token.find('=');
    a.name = token.substr(0, eq);
    a.value = eq == std::string_view::npos ? std::string_view() : token.substr(eq + 1);
    if (!a.value.empty() && a.value.front() == '"' && a.value.back() == '"') {
        a.value = a.value.size() < 2 ? std::string_view() : a.value.substr(1, a.value.size() - 2);
    }
    return a;
}

struct SectionTag {
    std::string_view key;
    int section;
};
constexpr SectionTag kSectionTags[] = {
    {"<!--#isNotAuth ", 0},
    {"<!--#isAuth ", 1},
    {"<!--#endAuth ", -1},
};

struct NamedKind {
    std::string_view name;
    DirectiveKind kind;
};
constexpr NamedKind kDirectiveNames[] = {
    {"config", DirectiveKind::config},     {"include", DirectiveKind::include},
    {"echo", DirectiveKind::echo},         {"fsize", DirectiveKind::fsize},
    {"flastmod", DirectiveKind::flastmod}, {"exec", DirectiveKind::exec},
    {"isAuth", DirectiveKind::is_auth},    {"isNotAuth", DirectiveKind::is_not_auth},
    {"endAuth", DirectiveKind::end_auth},  {"check", DirectiveKind::check},
    {"endCheck", DirectiveKind::end_check}, {"unCheck", DirectiveKind::un_check},
};

// One element of a pattern alternative.
enum class Piece : std::uint8_t { literal, any_one, run, deep_run };

struct Token {
    Piece piece;
    char c;
};

std::vector<Token> tokenize(std::string_view alternative) {
    std::vector<Token> tokens;
    for (std::size_t i = 0; i < alternative.size(); ++i) {
        char c = alternative[i];
        if (c == '?') {
            tokens.push_back({Piece::any_one, c});
        } else if (c == '*' && i + 1 < alternative.size() && alternative[i + 1] == '*') {
            tokens.push_back({Piece::deep_run, c});
            ++i;
        } else if (c == '*') {
            tokens.push_back({Piece::run, c});
        } else {
            tokens.push_back({Piece::literal, c});
        }
    }
    return tokens;
}

// Whether the whole text matches one alternative. The answers are those of
// trying each run longest first with backtracking; the table over (pattern
// position, text position) keeps that polynomial for paths with many "**".
bool match_one(std::string_view alternative, std::string_view text) {
    const std::vector<Token> tokens = tokenize(alternative);
    const std::size_t n = text.size();
    // next[j]: the suffix of tokens after the current one matches text[j..].
    std::vector<std::uint8_t> next(n + 1, 0), cur(n + 1, 0);
    next[n] = 1;  // no tokens left matches only the end of the text
    for (std::size_t k = tokens.size(); k-- > 0;) {
        const Token &t = tokens[k];
        cur[n] = (t.piece == Piece::run || t.piece == Piece::deep_run) ? next[n] : 0;
        for (std::size_t j = n; j-- > 0;) {
            switch (t.piece) {
            case Piece::literal: cur[j] = text[j] == t.c && next[j + 1]; break;
            case Piece::any_one: cur[j] = next[j + 1]; break;
            case Piece::run: cur[j] = next[j] || (text[j] != '/' && cur[j + 1]); break;
            case Piece::deep_run: cur[j] = next[j] || cur[j + 1]; break;
            }
        }
        next.swap(cur);
    }
    return next[0] != 0;
}

}  // namespace

bool parse_directive(std::string_view text, Directive &out) {
    out.name = {};
    out.attributes.clear();
    text = text.substr(0, text.find('\0'));

    // Token boundaries, the directive name first. Fixed arrays: this runs
    // for every directive of every page.
    std::array<std::size_t, kMaxAttributes + 1> starts;
    std::array<std::size_t, kMaxAttributes + 1> ends;
    std::size_t count = 0, ended = 0;
    std::size_t pos = skip_blanks(text, 0);
    starts[count++] = pos;
    while (count - 1 < kMaxAttributes) {
        std::size_t sep = find_separator(text, pos);
        if (sep == std::string_view::npos) break;
        if (text[sep] == '"') {
            std::size_t closing = text.find('"', sep + 1);
            if (closing == std::string_view::npos) return false;
            sep = closing + 1;
            if (sep >= text.size()) break;
        }
        ends[ended++] = sep;  // the byte at sep ends the token and is dropped
        pos = skip_blanks(text, sep + 1);
        if (pos >= text.size()) break;
        starts[count++] = pos;
    }
    // The last token runs to the end: the scan ran out, or stopped at the
    // attribute limit before cutting it.
    if (ended < count) ends[ended++] = text.size();

    out.name = text.substr(starts[0], ends[0] - starts[0]);
    for (std::size_t i = 1; i < count; ++i) {
        out.attributes.push_back(split_attribute(text.substr(starts[i], ends[i] - starts[i])));
    }
    return true;
}

DirectiveKind directive_kind(std::string_view name) {
    for (const NamedKind &row : kDirectiveNames)
        if (row.name == name) return row.kind;
    return DirectiveKind::unknown;
}

bool section_tag(std::string_view from_open, int &section) {
    for (const SectionTag &row : kSectionTags) {
        if (from_open.size() >= row.key.size() && from_open.substr(0, row.key.size()) == row.key) {
            section = row.section;
            return true;
        }
    }
    return false;
}

void scan_page(std::string_view page, PageSink &sink) {
    std::size_t pending = 0;  // start of text not yet passed on
    std::size_t pos = 0;      // where the next "#" is searched
    while (pos < page.size()) {
        std::size_t hash = page.find('#', pos);
        if (hash == std::string_view::npos) break;
        if (hash < kOpenLead) {
            // Too close to the start for a "<!--" before it.
            sink.text(page.substr(pending, hash - pending));
            pending = hash;
            pos = hash + 1;
            continue;
        }
        const std::size_t open = hash - kOpenLead;
        if (page.substr(open, kOpen.size()) != kOpen) {
            sink.text(page.substr(pending, hash + 1 - pending));
            pending = pos = hash + 1;
            continue;
        }
        // A "<!--" never overlaps text already passed on ("-->" and "#"
        // cannot end with its first bytes), so open >= pending.
        const std::size_t close = page.find(kClose, hash + 1);
        if (close == std::string_view::npos) break;  // no directive ends: the rest is text
        sink.text(page.substr(pending, open - pending));
        const std::size_t after = close + kClose.size();
        const std::string_view inner = page.substr(hash + 1, close - hash - 1);
        if (inner.size() < kDirectiveBufferSize && sink.directive(page.substr(open), inner)) {
            pending = after;
        } else {
            pending = open;  // shown as text, directive and all
        }
        pos = after;
    }
    sink.text(page.substr(pending));
}

bool match(std::string_view pattern, std::string_view text) {
    for (;;) {
        std::size_t bar = pattern.find('|');
        if (match_one(pattern.substr(0, bar), text)) return true;
        if (bar == std::string_view::npos) return false;
        pattern.remove_prefix(bar + 1);
    }
}

}  // namespace cgissi::ssi
