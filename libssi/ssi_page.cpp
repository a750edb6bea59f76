// The SSI page renderer: serves the page named by the web server, copying
// its text to the response and executing its "<!--#...-->" directives.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_config.h"
#include "quelm_kept_file.h"
#include "quelm_text.h"
#include "quelm_guard.h"
#include "ssi.h"
#include "ssi_render.h"

namespace cgissi::ssi {
namespace {

constexpr const char *kDefaultTimeFormat = "%a %b %e %T %Z %Y";

// Auth-hidden: in an isAuth section without authorisation, or in an
// isNotAuth section with it.
bool auth_hidden(const SectionState &s) {
    return !(s.auth_section == 1 && s.is_auth) && (s.is_auth || s.auth_section != 0) && s.auth_section != -1;
}

// Pages up to this size are read into memory with one read; larger ones are
// mapped. A read costs one system call where a mapping costs two and its
// page faults, and a file cut short while it is rendered only gives less
// text (a mapping would fault past its new end).
constexpr std::size_t kReadLimit = 64 * 1024;

// The text of a whole page file: read, or mapped read-only. A failure
// leaves no text; the text is not terminated.
class PageText {
public:
    PageText(int fd, std::size_t size) {
        if (size == 0) {
            ok_ = true;
        } else if (size <= kReadLimit) {
            read_all(fd, size);
        } else {
            void *addr = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
            if (addr == MAP_FAILED) return;
            addr_ = addr;
            text_ = {static_cast<const char *>(addr), size};
            ok_ = true;
        }
    }
    PageText(const PageText &) = delete;
    PageText &operator=(const PageText &) = delete;
    ~PageText() {
        if (addr_ != nullptr) ::munmap(addr_, text_.size());
    }

    bool ok() const { return ok_; }
    std::string_view text() const { return text_; }

private:
    void read_all(int fd, std::size_t size) {
        buffer_.reset(new char[size]);
        std::size_t got = 0;
        while (got < size) {
            const ssize_t n = ::read(fd, buffer_.get() + got, size - got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return;
            if (n == 0) break;
            got += static_cast<std::size_t>(n);
        }
        text_ = {buffer_.get(), got};
        ok_ = true;
    }

    std::unique_ptr<char[]> buffer_;
    void *addr_ = nullptr;
    std::string_view text_;
    bool ok_ = false;
};

using Handler = void (*)(const Call &);

Handler handler_of(DirectiveKind kind) {
    switch (kind) {
    case DirectiveKind::config: return do_config;
    case DirectiveKind::include: return do_include;
    case DirectiveKind::echo: return do_echo;
    case DirectiveKind::fsize: return do_fsize;
    case DirectiveKind::flastmod: return do_flastmod;
    case DirectiveKind::exec: return do_exec;
    default: return nullptr;
    }
}

// Acts on one attribute of a directive of a known kind.
void execute(DirectiveKind kind, const Call &call) {
    SectionState &s = call.page.sections;
    switch (kind) {
    case DirectiveKind::is_auth:
        if (s.is_check) {
            s.auth_section = 1;
            do_auth(call);
        }
        break;
    case DirectiveKind::is_not_auth:
        if (s.is_check) s.auth_section = 0;
        break;
    case DirectiveKind::end_auth:
        if (s.is_check) s.auth_section = -1;
        break;
    case DirectiveKind::check:
    case DirectiveKind::un_check:
        if (s.is_check) do_check(call);
        break;
    case DirectiveKind::end_check: s.is_check = 1; break;
    default:
        if (directives_run(s)) handler_of(kind)(call);
        break;
    }
}

}  // namespace

// A page's text cut into text runs and parsed directives, in page order.
// The cut depends on the bytes alone, so a kept page is cut once. Views
// point into `text` (a kept page) or into the text being rendered.
struct ScannedPage {
    static constexpr std::int8_t kNoSection = -2;
    struct Step {
        std::string_view text;  // a text run, or the directive's name
        std::uint32_t first = 0;  // the directive's attributes in `attributes`
        std::uint32_t count = 0;
        std::int8_t section = kNoSection;  // the section tag the directive opens
        bool directive = false;
    };
    std::string text;
    std::vector<Step> steps;
    std::vector<Attribute> attributes;
};

namespace {

class PageScanner : public PageSink {
public:
    explicit PageScanner(ScannedPage &out) : out_(out) {}

    void text(std::string_view run) override {
        if (!run.empty()) out_.steps.push_back({run});
    }

    bool directive(std::string_view from_open, std::string_view inner) override {
        if (!parse_directive(inner, directive_)) return false;
        ScannedPage::Step step{directive_.name, static_cast<std::uint32_t>(out_.attributes.size()),
                               static_cast<std::uint32_t>(directive_.attributes.size())};
        step.directive = true;
        int section = 0;
        if (section_tag(from_open, section)) step.section = static_cast<std::int8_t>(section);
        out_.attributes.insert(out_.attributes.end(), directive_.attributes.begin(), directive_.attributes.end());
        out_.steps.push_back(step);
        return true;
    }

private:
    ScannedPage &out_;
    Directive directive_;  // reused from directive to directive
};

class PageRenderer {
public:
    PageRenderer(RenderContext &page, const std::string &virtual_name, const std::string &file_name,
                 const struct stat &file_status)
        : page_(page), virtual_name_(virtual_name), file_name_(file_name), file_status_(file_status) {}

    void play(const ScannedPage &scanned) {
        for (const ScannedPage::Step &step : scanned.steps) {
            if (!step.directive) {
                if (text_visible(page_.sections)) cgi_out_write(step.text.data(), step.text.size());
                continue;
            }
            if (step.section != ScannedPage::kNoSection) page_.sections.auth_section = step.section;
            run_directive(step.text, {scanned.attributes.data() + step.first, step.count});
        }
    }

private:
    // Executes the directive once per attribute.
    void run_directive(std::string_view name, std::span<const Attribute> attributes) {
        const DirectiveKind kind = directive_kind(name);
        if (kind == DirectiveKind::unknown) {
            unknown_directive(file_name_, name);
            return;
        }
        bool first = true;
        for (const Attribute &a : attributes) {
            // compat: attributes' outputs are separated by one blank,
            // whatever shows.
            if (!first) cgi_out_write(" ", 1);
            first = false;
            const std::string tag(a.name);
            const std::string value(a.value);
            execute(kind, Call{page_, virtual_name_, file_name_, file_status_, name, tag, value});
        }
    }

    RenderContext &page_;
    const std::string &virtual_name_;
    const std::string &file_name_;
    const struct stat &file_status_;
};

// Pages kept between requests, a few slots taken in turn. Each holds at
// most kKeptPageLimit bytes of text and kMaxKeptSteps runs and directives.
constexpr std::size_t kKeptPages = 8;
constexpr std::size_t kMaxKeptSteps = 1024;
struct KeptPage {
    std::string path;
    struct stat status {};
    quelm::FolderStamp stamp{};
    std::shared_ptr<const ScannedPage> page;
};
struct KeptPages {
    std::array<KeptPage, kKeptPages> slots;
    std::size_t next = 0;
};
KeptPages &kept_pages() {
    static KeptPages pages;
    return pages;
}

// The kept page at `path` while a status call (into `status`) finds the
// file unchanged; null otherwise.
std::shared_ptr<const ScannedPage> kept_page(const std::string &path, struct stat &status) {
    for (const KeptPage &slot : kept_pages().slots) {
        if (slot.page == nullptr || slot.path != path) continue;
        if (quelm::folder_quiet(slot.stamp)) {
            status = slot.status;
            return slot.page;
        }
        if (::stat(path.c_str(), &status) == 0 && quelm::same_status(status, slot.status)) return slot.page;
        return nullptr;
    }
    return nullptr;
}

// Keeps a page read whole, when it is small and its last change had
// settled before it was read; the kept page, or null when it is not kept.
std::shared_ptr<const ScannedPage> keep_page(const std::string &path, const struct stat &status,
                                             const quelm::FolderStamp &stamp, std::string_view text) {
    if (text.size() > kKeptPageLimit || text.size() != static_cast<std::size_t>(status.st_size) ||
        !quelm::settled(status)) {
        return nullptr;
    }
    auto page = std::make_shared<ScannedPage>();
    page->text.assign(text);  // never moved again: the steps point into it
    PageScanner scanner(*page);
    scan_page(page->text, scanner);
    if (page->steps.size() > kMaxKeptSteps) return nullptr;
    KeptPages &pages = kept_pages();
    KeptPage *slot = nullptr;
    for (KeptPage &s : pages.slots)
        if (s.path == path) slot = &s;
    if (slot == nullptr) {
        slot = &pages.slots[pages.next];
        pages.next = (pages.next + 1) % kKeptPages;
    }
    slot->path = path;
    slot->status = status;
    slot->stamp = quelm::stamp_if_own(stamp, path.c_str(), status);
    slot->page = page;
    return page;
}

// A page that cannot be served gets its error block with a proper status,
// so that the web server and the browser see a 404 or 500 instead of a
// malformed answer; the block itself is unchanged.
void error_header(int status) { cgi_out_status_header(status, "text/html"); }

// The page's URI: PATH_INFO, or the page's path below the document root
// keeping the root's last character (its "/").
std::string page_path_info(const std::string &file_name) {
    const char *path_env = cgiRequestVariable("PATH_INFO");
    if (path_env != nullptr && path_env[0] != '\0') return path_env;
    const char *root = cgiRequestVariable("DOCUMENT_ROOT");
    const std::size_t root_length = root != nullptr ? std::strlen(root) : 0;
    if (root_length > 0 && file_name.size() >= root_length - 1) return file_name.substr(root_length - 1);
    return {};
}

// The page file to serve, or an error answer and nothing.
bool find_page(std::string &file_name, std::string &path_info) {
    if (cgiRequestVariable("SCRIPT_NAME") == nullptr) {
        error_header(500);
        internal_error("Couldn't get SCRIPT_NAME environment variable.");
        return false;
    }
    const char *script_env = cgiRequestVariable("SCRIPT_FILENAME");
    if (script_env == nullptr) {
        error_header(500);
        internal_error("Couldn't get SCRIPT_FILENAME environment variable.");
        return false;
    }
    file_name = script_env;
    if (!check_filename(file_name)) {
        error_header(403);
        not_permitted("initial", "SCRIPT_FILENAME", file_name);
        return false;
    }
    path_info = page_path_info(file_name);
    if (!path_info.empty() && !check_filename(path_info)) {
        error_header(403);
        not_permitted("initial", "PATH_INFO", path_info);
        return false;
    }
    return true;
}

int serve_page() {
    RenderContext page;
    quelm::copy_cut(page.time_format, sizeof page.time_format, kDefaultTimeFormat);
    std::string file_name;
    if (!find_page(file_name, page.path_info)) return 1;

    PageSource source(file_name);
    if (!source.ok()) {
        error_header(404);
        page_not_found(file_name);
        return 1;
    }
    const std::string_view type = mime_type(file_name);
    cgiHeaderContentLanguage();
    cgi_out_write("Content-type: ", 14);
    cgi_out_write(type.data(), type.size());
    cgi_out_write("\r\n\r\n", 4);
    source.render(page, page.path_info, file_name);
    return 0;
}

}  // namespace

bool text_visible(const SectionState &s) { return !auth_hidden(s) && s.is_check; }

bool directives_run(const SectionState &s) { return !auth_hidden(s) && (s.is_check || !s.is_auth); }

PageSource::PageSource(const std::string &path) {
    kept_ = kept_page(path, status_);
    // Without blocking, so that a FIFO among the pages cannot stall the
    // responder.
    if (kept_ == nullptr) {
        stamp_ = quelm::folder_stamp(path);
        fd_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    }
}

void PageSource::render(RenderContext &page, const std::string &virtual_name, const std::string &file_name) {
    PageRenderer renderer(page, virtual_name, file_name, status_);
    if (kept_ != nullptr) {
        // kept_ holds the page while it renders, even when an include
        // takes its slot.
        renderer.play(*kept_);
        return;
    }
    if (::fstat(fd_.get(), &status_) != 0) {
        QM_LOG_print("stat error : %s", std::strerror(errno));
        return;
    }
    // Only regular files have text to map; anything else reads as empty.
    const std::size_t size = S_ISREG(status_.st_mode) ? static_cast<std::size_t>(status_.st_size) : 0;
    const PageText text(fd_.get(), size);
    if (!text.ok()) {
        QM_LOG_print("%s error : %s", size <= kReadLimit ? "read" : "mmap", std::strerror(errno));
        return;
    }
    if (const std::shared_ptr<const ScannedPage> kept = keep_page(file_name, status_, stamp_, text.text())) {
        renderer.play(*kept);
        return;
    }
    ScannedPage scanned;
    PageScanner scanner(scanned);
    scan_page(text.text(), scanner);
    renderer.play(scanned);
}

}  // namespace cgissi::ssi

// An exception (memory exhaustion above all) ends the page where it
// happened; what was written so far still leaves.
extern "C" int ssi(int, char **) {
    const int result = quelm::guarded(1, __func__, [] { return cgissi::ssi::serve_page(); });
    cgi_out_finish();
    return result;
}
