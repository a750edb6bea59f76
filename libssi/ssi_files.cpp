// Files a page names: resolving include, fsize and flastmod attributes to
// paths, refusing what a page may not read, and including pages.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "cgic.h"
#include "qm_config.h"
#include "ssi_render.h"

namespace cgissi::ssi {
namespace {

constexpr std::size_t kPathLimit = 1000;  // resolved paths in bytes, with terminator

// CGI_PATTERN as the process first saw it.
const std::optional<std::string> &cgi_pattern() {
    static const std::optional<std::string> pattern = []() -> std::optional<std::string> {
        const char *value = std::getenv("CGI_PATTERN");
        if (value == nullptr) return std::nullopt;
        return std::string(value);
    }();
    return pattern;
}

bool has_parent_step(std::string_view path) { return path.find("../") != std::string_view::npos; }

// Directory part of `path` through its last "/"; a name without "/" is
// taken as a directory of its own (the name and a "/").
std::string directory_of(const std::string &path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return path + "/";
    return path.substr(0, slash + 1);
}

// A "virtual" attribute: below the document root, or without a root below
// the site the page's own path locates.
std::optional<std::string> virtual_path(const Call &c) {
    if (has_parent_step(c.value)) {
        not_permitted(c.directive, c.tag, c.value);
        return std::nullopt;
    }
    const char *root = cgiRequestVariable("DOCUMENT_ROOT");
    if (root != nullptr && root[0] != '\0') {
        std::string_view relative = c.value;
        relative.remove_prefix(std::min(relative.find_first_not_of('/'), relative.size()));
        const std::size_t root_length = std::strlen(root);
        if (c.value.size() + root_length > kPathLimit || root_length + relative.size() >= kPathLimit) {
            QM_LOG_print("Error %s:%d -> can't concatenate doc_root and val, not enough size", "ssi_files.cpp",
                         __LINE__);
            return std::nullopt;
        }
        return std::string(root) + std::string(relative);
    }
    const std::string &file_name = c.file_name;
    const std::string &virtual_name = c.virtual_name;
    if (!file_name.ends_with(virtual_name)) return std::nullopt;
    const std::size_t base = file_name.size() - virtual_name.size();
    if (base + c.value.size() >= kPathLimit) return std::nullopt;
    return file_name.substr(0, base) + c.value;
}

// Resolves the attribute to a file path of at most kPathLimit - 1
// characters; refusals are reported inline.
std::optional<std::string> get_filename(const Call &c) {
    if (c.tag == "virtual") return virtual_path(c);
    if (c.tag == "file") {
        if (c.value.starts_with('/') || has_parent_step(c.value)) {
            not_permitted(c.directive, c.tag, c.value);
            return std::nullopt;
        }
        if (c.value.size() + c.file_name.size() + 1 >= kPathLimit) return std::nullopt;
        return directory_of(c.file_name) + c.value;
    }
    unknown_tag(c.file_name, c.directive, c.tag);
    return std::nullopt;
}

// The URI an included page is known by (its DOCUMENT_URI).
std::string included_name(const Call &c, const std::string &path) {
    if (c.tag == "virtual") return c.value.size() >= kPathLimit ? path : c.value;
    std::string directory = directory_of(c.virtual_name);
    return directory.size() + c.value.size() < kPathLimit ? directory + c.value : path;
}

}  // namespace

bool check_filename(std::string_view path) {
    if (has_parent_step(path)) return false;
    const std::optional<std::string> &pattern = cgi_pattern();
    if (!pattern) return true;
    return !match(*pattern, path);
}

std::optional<struct stat> stat_target(const Call &c) {
    std::optional<std::string> path = get_filename(c);
    if (!path) return std::nullopt;
    struct stat st {};
    if (::stat(path->c_str(), &st) != 0) {
        file_not_found(c.directive, c.tag, *path);
        return std::nullopt;
    }
    return st;
}

void do_include(const Call &c) {
    std::optional<std::string> path = get_filename(c);
    if (!path) return;
    // Bounded nesting and a bounded number of includes per render stop
    // pages that include themselves, once or several times over.
    RenderContext &page = c.page;
    if (!check_filename(*path) || page.include_depth >= kMaxIncludeDepth || page.include_count >= kMaxIncludes) {
        not_permitted(c.directive, c.tag, *path);
        return;
    }
    PageSource source(*path);
    if (!source.ok()) {
        file_not_found(c.directive, c.tag, *path);
        return;
    }
    ++page.include_count;
    ++page.include_depth;
    source.render(page, included_name(c, *path), *path);
    --page.include_depth;
}

}  // namespace cgissi::ssi
