// The value directives of a page: config, echo, fsize, flastmod and exec.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "cgi_output.h"
#include "cgic.h"
#include "quelm_text.h"
#include "quelm_child.h"
#include "quelm_log.h"
#include "ssi.h"
#include "ssi_render.h"
#include "ssi_symbols.h"

namespace cgissi::ssi {
namespace {

// Output of one "exec cmd=" passed into the page; the rest is dropped.
constexpr std::size_t kCommandOutputLimit = 1024 * 1024;
constexpr std::size_t kTimeBufferSize = 500;  // one formatted date, in bytes

// A formatted date, kept with everything its text depends on: a page's
// dates (and those of the pages that follow within the same second) are
// formatted once, not once per echo.
struct KeptTime {
    bool valid = false;
    bool universal = false;
    std::time_t when = 0;
    std::string format;
    std::string zone;  // the TZ variable of the request that formatted it
    std::string text;
};
constexpr std::size_t kKeptTimes = 4;  // a page's DATE_LOCAL, DATE_GMT and modification times

std::string_view formatted_time(const RenderContext &page, std::time_t when, bool universal) {
    static KeptTime kept[kKeptTimes];
    static std::size_t next = 0;
    const char *tz = cgiRequestVariable("TZ");
    const std::string_view zone = tz != nullptr ? tz : "";
    for (const KeptTime &k : kept) {
        if (k.valid && k.when == when && k.universal == universal && k.format == page.time_format && k.zone == zone)
            return k.text;
    }
    struct tm parts {};
    if ((universal ? ::gmtime_r(&when, &parts) : ::localtime_r(&when, &parts)) == nullptr) return {};
    char text[kTimeBufferSize];
    const std::size_t n = std::strftime(text, sizeof text, page.time_format, &parts);
    KeptTime &slot = kept[next++ % kKeptTimes];
    slot = KeptTime{true, universal, when, page.time_format, std::string(zone), std::string(text, n)};
    return slot.text;
}

void print_time(const RenderContext &page, std::time_t when, bool universal) {
    const std::string_view text = formatted_time(page, when, universal);
    if (!text.empty()) write_value(text);
}

void write_env(const char *value) {
    if (value != nullptr) write_value(value);
}

// The value of an echo variable: the page's names, dates, the environment,
// and any other name through the symbol callback.
void echo_value(const Call &c) {
    const std::string_view name = c.value;
    if (name == "DOCUMENT_NAME") {
        write_value(c.file_name);
    } else if (name == "DOCUMENT_URI") {
        write_value(c.virtual_name);
    } else if (name == "QUERY_STRING_UNESCAPED") {
        write_env(cgiRequestVariable("QUERY_STRING"));
    } else if (name == "DATE_LOCAL") {
        print_time(c.page, std::time(nullptr), false);
    } else if (name == "DATE_GMT") {
        print_time(c.page, std::time(nullptr), true);
    } else if (name == "LAST_MODIFIED") {
        print_time(c.page, c.file_status.st_mtime, false);
    } else if (const char *env = cgiRequestVariable(c.value.c_str())) {
        write_env(env);
    } else if (name == "X_FORWARDED_FOR") {
        // compat: an unset X_FORWARDED_FOR is empty, never a symbol.
    } else if (ssi_symbol_callback callback = symbol_callback()) {
        callback(c.value.c_str());
    }
}

// Runs `command` with /bin/sh and copies its standard output into the
// page. Pages are firmware files, so the command text is trusted.
void run_shell_command(const std::string &command) {
    quelm::ChildOptions options;
    options.output_limit = kCommandOutputLimit;
    quelm::run_child({"/bin/sh", "-c", command},
                     [](std::string_view chunk) { cgi_out_write(chunk.data(), chunk.size()); }, options);
}

}  // namespace

void do_config(const Call &c) {
    if (c.tag == "timefmt") {
        quelm::copy_cut(c.page.time_format, sizeof c.page.time_format, c.value.c_str());
    } else if (c.tag == "sizefmt") {
        if (c.value == "bytes") {
            c.page.size_format = SizeFormat::bytes;
        } else if (c.value == "abbrev") {
            c.page.size_format = SizeFormat::abbrev;
        } else {
            unknown_value(c.file_name, c.directive, c.tag, c.value);
        }
    } else {
        unknown_tag(c.file_name, c.directive, c.tag);
    }
}

void do_echo(const Call &c) {
    int mode = SSI_MODE_PLAIN;
    if (c.tag == "jsvar") mode = SSI_MODE_JS;
    if (c.tag == "jsonvar") mode = SSI_MODE_JSON;
    SSI_Set_Mode(mode);
    if (c.tag != "var" && c.tag != "jsvar" && c.tag != "jsonvar") {
        unknown_tag(c.file_name, c.directive, c.tag);
        return;
    }
    echo_value(c);
}

void do_fsize(const Call &c) {
    std::optional<struct stat> st = stat_target(c);
    if (!st) return;
    const long size = static_cast<long>(st->st_size);
    if (c.page.size_format == SizeFormat::bytes || size < 1024) {
        cgi_out_printf("%ld", size);
    } else if (size < 1024 * 1024) {
        // compat: "abbrev" has no kilobyte step (its test repeated the bound
        // above), so sizes below 1 MiB show as "0M" and larger ones count
        // GiB. Pages were laid out around these strings and keep them.
        cgi_out_printf("%ldM", size >> 20);
    } else {
        cgi_out_printf("%ldG", size >> 30);
    }
}

void do_flastmod(const Call &c) {
    if (std::optional<struct stat> st = stat_target(c)) print_time(c.page, st->st_mtime, false);
}

void do_exec(const Call &c) {
    // compat: the log text is kept as the field's log filters know it.
    quelm::log::print(LOG_CRIT, "SSI has tried to execute system command, please fix webpage !");
    if (c.tag == "cmd") {
        cgi_out_flush();
        run_shell_command(c.value);
        cgi_out_flush();
    } else {
        unknown_tag(c.file_name, c.directive, c.tag);
    }
}

}  // namespace cgissi::ssi
