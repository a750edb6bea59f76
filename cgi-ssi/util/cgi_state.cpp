// The one-shot CGI error file, the configuration lock, the fixed error and
// reboot pages, and the typed property helpers of qm_cgi_state.h.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_util.h"
#include "quelm_folder_watch.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "ssi_buffer.h"

namespace {

constexpr const char *kCgiErrorFile = "/var/tmp/cgierror";
// Named in the error page when a failed lock cannot even parse the request.
constexpr const char *kLockErrorName = "sharing.cgi";
// Decimal int with sign and terminator.
constexpr std::size_t kIntTextSize = 16;

// A value handed out by QM_DAT_getobjproperty.
using PropertyValue = std::unique_ptr<char, quelm::CDeleter<FreePropertyValue>>;
// The error file lies in a directory every user may write: it is never
// reached through a link and is readable by the responder alone.
constexpr mode_t kCgiErrorMode = 0600;

std::string cgierror_path() { return quelm::root_path(kCgiErrorFile); }

}  // namespace

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" int set_cgierror(int code) {
    return quelm::guarded(code, __func__, [&]() -> int {
        // Known absent while nothing in its folder has changed since it was
        // last deleted or found missing.
        static quelm::FolderStamp absent;
        if (code == 0 && quelm::folder_quiet(absent)) return code;
        const std::string path = cgierror_path();
        if (code == 0) {
            const quelm::FolderStamp stamp = quelm::folder_stamp(path);
            absent = ::unlink(path.c_str()) == 0 || errno == ENOENT ? stamp : quelm::FolderStamp{};
            return code;
        }
        // Nobody could report a failure to store the error, so it goes unnoticed.
        quelm::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kCgiErrorMode));
        if (!fd) return code;
        char text[kIntTextSize];
        const int length = std::snprintf(text, sizeof text, "%d", code);
        const ssize_t written = ::write(fd.get(), text, static_cast<std::size_t>(length));
        (void)written;
        return code;
    });
}

extern "C" int get_cgierror(void) {
    return quelm::guarded(0, __func__, [&]() -> int {
        const std::string path = cgierror_path();
        if (get_filevar(path.c_str(), Ssi, sizeof Ssi) != QM_VAR_OK) {
            Ssi[0] = '0';
            Ssi[1] = '\0';
        } else {
            // Shown once: the page that displays the error consumes it.
            ::unlink(path.c_str());
        }
        return 0;
    });
}

extern "C" int cgi_lock_config(void) {
    return quelm::guarded(-1, __func__, [&]() -> int {
        const int code = QM_FILE_lock();
        if (code == 0) return 0;
        QM_err_set(code);
        if (cgiInitResources(nullptr) == 0) {
            set_cgierror(code);
            getset_error_url();
            branch_dest_url();
            cgiFreeResources();
        } else {
            generic_error(kLockErrorName);
        }
        return code;
    });
}

extern "C" int cgi_unlock_config(void) { return QM_FILE_unlock(); }

extern "C" void generic_error(const char *text) {
    quelm::guarded(__func__, [&] {
        // A refused request body gets a header block; otherwise the caller has
        // written its headers (the page keeps the bytes it has always had).
        if (const int status = cgiRefusedStatus(); status != 0) cgi_out_status_header(status, "text/html");
        cgi_out_printf("<HTML>\n");
        cgi_out_printf("<HEAD>\n");
        cgi_out_printf("<TITLE>Error</TITLE>\n");
        cgi_out_printf("</HEAD>\n");
        cgi_out_printf("<BODY>Internal Server Error %s</BODY>\n", text != nullptr ? text : "");
        cgi_out_printf("</HTML>\n");
    });
}

extern "C" void reboot_page(const char *host) {
    quelm::guarded(__func__, [&] {
        const char *h = host != nullptr ? host : "";
        cgiHeaderContentType("text/html");
        cgi_out_printf("<HTML>\n");
        cgi_out_printf("<HEAD>\n");
        cgi_out_printf("<TITLE> Firmware update </TITLE>\n");
        cgi_out_printf("</HEAD>\n");
        cgi_out_printf("<BODY style=\"background:#FFFFFF;\">");
        cgi_out_printf("<DIV style=\"background:#003A88; margin-top:20px; color:#FFFFFF;\">");
        cgi_out_printf(" The firmware upgrade is complete.<BR>\n");
        cgi_out_printf(" The modem is now rebooting.<BR>\n");
        cgi_out_printf(" When the reboot is finished, please reload the web page by clicking here "
                       "<a style=\"background:#FFFFFF; color:#003A88;\" href=\"http://%s/\">http://%s/</a><BR>\n",
                       h, h);
        cgi_out_printf("</DIV></BODY>\n");
        cgi_out_printf("</HTML>\n");
    });
}

extern "C" int get_shelldelay(void) {
    int delay = 0;
    cgiFormInteger("iDelay", &delay, 0);
    return delay;
}

extern "C" void FreePropertyValue(char *value) {
    if (value != nullptr) std::free(value);
}

extern "C" int GetPropertyStrValue(const char *object, const char *property, char *dest, size_t length) {
    PropertyValue value(QM_DAT_getobjproperty(object, property));
    if (value) {
        // strncpy's contract, which callers rely on: zero padding, and no
        // terminator when the value fills the destination.
        const std::size_t n = ::strnlen(value.get(), length);
        std::memcpy(dest, value.get(), n);
        std::memset(dest + n, 0, length - n);
    }
    return QM_err_get();
}

extern "C" int SetPropertyStrValue(const char *object, const char *property, const char *value) {
    return QM_DAT_setobjproperty(object, property, value, 0);
}

extern "C" int GetPropertyIntValue(const char *object, const char *property, int *out) {
    *out = 0;
    PropertyValue value(QM_DAT_getobjproperty(object, property));
    if (value) std::sscanf(value.get(), "%d", out);
    return QM_err_get();
}

extern "C" int SetPropertyIntValue(const char *object, const char *property, int value) {
    char text[kIntTextSize];
    std::snprintf(text, sizeof text, "%d", value);
    return QM_DAT_setobjproperty(object, property, text, 0);
}
