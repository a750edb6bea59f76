// The page the browser is sent to after a form post: chosen from the form
// (set_dest_url and its two form readers), composed and sent by
// branch_dest_url.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quelm_text.h"
#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_util.h"
#include "util/policy.h"

// C linkage and export come from the declarations in qm_cgi_state.h.
char url_page[QM_URL_PAGE_SIZE];
int url_expert;

namespace {

constexpr const char *kDefaultPage = "index.htm";
constexpr const char *kRefererFallback = "../index.htm";

constexpr const char *kConfiguratorObject = "Services_IADConfigurator";
constexpr std::size_t kLanguageSize = 8;  // CurrentLanguage, terminator included
constexpr const char *kDefaultLanguage = "fr";
constexpr const char *kNeutralLanguage = "default";

// Host and the two directories of a referer. The widths in kRefererScan
// are kRefererFieldSize - 1; a longer host or first directory stops the
// match, a longer second directory is cut.
constexpr std::size_t kRefererFieldSize = 40;
// The host set is "a-zA-Z0-9", the range ":" to "_" (":;<=>?@", the upper
// case letters and "[ \ ] ^ _") and "."; there is no "-" in it, so a host name
// with a hyphen does not match. Kept: the redirects the pages rely on were
// always decided by this set.
constexpr const char *kRefererScan = "http://%39[a-zA-Z0-9:-_.]/%39[a-zA-Z0-9_-]/%39[a-zA-Z0-9_-]/";

// The one formatter into Line; the parts are bounded (page 255, language 7,
// directories 39) so the result always fits.
__attribute__((format(printf, 1, 2))) void format_line(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(Line, sizeof Line, format, args);
    va_end(args);
}

// Mode 3: the referring page's tree, "../<dir1>/<dir2>/<page>".
void compose_referer_tree(const char *page) {
    format_line("%s", kRefererFallback);
    const char *referer = std::getenv("HTTP_REFERER");
    if (referer == nullptr) {
        QM_LOG_print("HTTP_REFERER doesn't exist !");
        return;
    }
    char host[kRefererFieldSize] = "";
    char first[kRefererFieldSize] = "";
    char second[kRefererFieldSize] = "";
    if (std::sscanf(referer, kRefererScan, host, first, second) != 3) {
        QM_LOG_print("can't extract all parameters from HTTP_REFERER");
        return;
    }
    format_line("../%s/%s/%s", first, second, page);
}

// Basic or expert tree, with the current language when languages are on.
void compose_tree(const char *page, int mode) {
    const char *tree = mode != QM_DEST_BASIC ? "expert" : "basic";
    int enabled = 0;
    if (GetPropertyIntValue(kConfiguratorObject, "Enable", &enabled) != 0) enabled = 0;
    if (enabled == 0) {
        format_line("../%s/%s", tree, page);
        return;
    }
    // One byte short of the buffer so that a full value stays terminated.
    char language[kLanguageSize] = "";
    if (GetPropertyStrValue(kConfiguratorObject, "CurrentLanguage", language, sizeof language - 1) != 0) {
        quelm::copy_cut(language, sizeof language, kDefaultLanguage);
    }
    if (std::strchr(language, '_') == nullptr && std::strcmp(language, kNeutralLanguage) != 0) {
        format_line("../%s/%s/%s", tree, language, page);
    } else {
        // Regional languages ("en_GB") and "default" have their tree inside
        // the language folder; the page sets are installed that way.
        format_line("../%s/%s/%s", language, tree, page);
    }
}

// Reads the page field into Line; iExpert defaults to basic.
cgiFormResultType read_page_field(const char *field, int *mode) {
    cgiFormInteger("iExpert", mode, QM_DEST_BASIC);
    return cgiFormStringNoNewlines(field, Line, static_cast<int>(sizeof Line));
}

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" void set_dest_url(const char *page, int mode) {
    if (page == nullptr || page[0] == '\0') return;
    const std::size_t n = ::strnlen(page, sizeof url_page - 1);
    std::memcpy(url_page, page, n);
    url_page[n] = '\0';
    // The home page always lives in the basic tree, except when the
    // referer's tree is asked for.
    url_expert = std::strcmp(page, kDefaultPage) == 0 && mode != QM_DEST_REFERER_TREE ? QM_DEST_BASIC : mode;
}

extern "C" void getset_success_url(void) {
    int mode = QM_DEST_BASIC;
    if (read_page_field("sSuccessPage", &mode) != cgiFormNotFound) {
        set_dest_url(Line, mode);
    } else {
        set_dest_url(kDefaultPage, QM_DEST_BASIC);
    }
}

extern "C" int getset_error_url(void) {
    int mode = QM_DEST_BASIC;
    const cgiFormResultType result = read_page_field("sErrorPage", &mode);
    if (result != cgiFormNotFound) set_dest_url(Line, mode);
    return result;
}

extern "C" void branch_dest_url(void) {
    // The property reads below set the shared error code; the caller's
    // failure must still be there after the redirect.
    const int saved_error = QM_err_get();
    switch (url_expert) {
    case QM_DEST_PARENT:
        format_line("../%s", url_page);
        break;
    case QM_DEST_AS_GIVEN:
        format_line("%s", cgissi::policy::home_target(url_page));
        break;
    case QM_DEST_REFERER_TREE:
        compose_referer_tree(url_page);
        break;
    default:
        compose_tree(url_page, url_expert);
        break;
    }
    cgiHeaderLocation(Line);
    QM_err_set(saved_error);
}
