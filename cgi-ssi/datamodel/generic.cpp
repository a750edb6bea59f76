// Generic front ends of the data model: "generic.cgi" (one JSON answer for
// a request's read, write, create, delete, reset and function fields), the
// SSI hook "cli=", and the configuration lock of a request.
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "cgi_output.h"
#include "cgic.h"
#include "datamodel/datamodel_internal.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_node.h"
#include "qm_token.h"
#include "quelm_child.h"
#include "quelm_guard.h"
#include "quelm_log.h"
#include "quelm_root.h"
#include "ssi.h"
#include "ssi_buffer.h"
#include "util/text_scan.h"

namespace cgissi::datamodel {
namespace {

constexpr const char *kFactoryResetScript = "/etc/quelm/init.d/factory-reset";

// Runs the factory-reset script through the shell and waits for it. The
// path is passed as the script operand, never as a command line.
void run_factory_reset() {
    quelm::run_child({"/bin/sh", quelm::root_path(kFactoryResetScript)}, {});
}

// The instance a "create" field made is this request's only: cleared
// before the request's fields run and again when it ends, so no later
// request resolves "_0_" through it.
class CreatedInstanceScope {
public:
    CreatedInstanceScope() { last_created_indice = -1; }
    ~CreatedInstanceScope() { last_created_indice = -1; }
    CreatedInstanceScope(const CreatedInstanceScope &) = delete;
    CreatedInstanceScope &operator=(const CreatedInstanceScope &) = delete;
};

// Fields that change the configuration take the lock before they run.
struct FieldAction {
    std::string_view name;
    bool lock;
    bool store_only;
    void (*apply)(std::string &, GenericRequest &);
};

constexpr FieldAction kFieldActions[] = {
    {"read", false, false, read_cgi_value},     {"write", true, false, write_cgi_value},
    {"storeonly", true, true, write_cgi_value}, {"writes", true, false, writes_cgi_value},
    {"create", true, false, create_cgi_value},  {"fct", false, false, fct_cgi_value},
    {"clear", true, false, clear_cgi_value},    {"delete", true, false, delete_cgi_value},
    {"remove", true, false, delete_cgi_value},  {"reset", true, false, reset_cgi_value},
};

void apply_field(const cgiFormEntry &entry, GenericRequest &request) {
    request.store_only = false;
    const std::string_view name = entry.attr != nullptr ? entry.attr : "";
    std::string value = entry.value != nullptr ? entry.value : "";
    if (name == "delay") {
        // Accepted for the pages that send it; this handler does not wait.
        const char *p = value.c_str();
        int delay = 0;
        if (!quelm::util::scan_int(p, delay) || delay == 0) delay = 1;
        return;
    }
    for (const FieldAction &action : kFieldActions) {
        if (action.name != name) continue;
        if (action.lock) get_lock();
        request.store_only = action.store_only;
        action.apply(value, request);
        return;
    }
}

// Commit or revert what the request changed, then give the lock back.
void finish_changes(const GenericRequest &request) {
    if (request.error_code == 0 && request.modified) {
        QM_FILE_commit(0);
        quelm::log::print(LOG_INFO, "changes committed");
    } else if (request.error_code != 0 && request.modified) {
        QM_FILE_revert();
    }
    if (request.error_code != 0) {
        // The causes were logged where they arose; the error text may quote them.
        quelm::log::print(LOG_WARNING, "answered with error %u%s", request.error_code,
                          request.modified ? ", changes reverted" : "");
    }
    if (is_lock != 0) {
        is_lock = 0;
        QM_FILE_unlock();
    }
}

void serve(GenericRequest &request) {
    set_cgierror(QM_err_set(0));
    is_lock = 0;
    SSI_Set_Mode(SSI_MODE_JSON);

    constexpr std::string_view kHeader = "Content-Type: text/plain\r\n\r\n";
    cgi_out_write(kHeader.data(), kHeader.size());
    request.answer.begin_object();

    const int token = get_token_rights(&request.token);
    if (token != QM_TOKEN_VALID) {
        // The reason is already in the error text; any code makes it shown.
        request.error_code = static_cast<std::uint32_t>(token);
        quelm::log::print(LOG_WARNING, "request refused by its token from %s: %s", cgiRemoteAddr, request.token.message);
    } else {
        for (const cgiFormEntry *e = getFormEntries(); e != nullptr; e = e->next) apply_field(*e, request);
    }

    if (request.error_code != 0) {
        request.answer.key("error");
        request.answer.string(request.token.error_text, json::Escape::output_mode);
    }
    request.answer.end_object();
    request.answer.raw("\n");
    cgi_out_finish();
    finish_changes(request);
}

void serve_request() {
    const CreatedInstanceScope created;
    // The request object (21 kB) is made afresh for each request in storage
    // kept for it, not allocated: an allocation that large costs the
    // allocator a sweep of its small free chunks each time. A request served
    // inside another one (a plugin calling back) gets its own allocation.
    static std::optional<GenericRequest> slot;
    if (slot.has_value()) {
        auto nested = std::make_unique<GenericRequest>();
        serve(*nested);
        return;
    }
    slot.emplace();
    struct Release {
        ~Release() { slot.reset(); }
    } release;
    serve(*slot);
}

void print_read(const char *argument) {
    token_shadow_password = 1;
    std::string path = argument != nullptr ? argument : "";
    CliOptions options;
    strip_cli_options(path, options);
    if (options.autolearn) token_ssi_autolearn = 1;
    token_shadow_password = options.shadow;
    ResultTree tree;
    if (read_tree(path, tree) && tree.root->has_children()) {
        write_tree(tree.root, token_shadow_password != 0);
    } else {
        // A script literal, not a JSON value.
        ssiprintf("%s", "undefined");
    }
}

}  // namespace

bool granted(const GenericRequest &request, const std::string &path) {
    // "all" grants every path (has_right's first test): no need to build
    // the path's filter-free form.
    if (std::string_view(request.token.rights) == "all") return true;
    return has_right(request.token.rights, rights_path(path).c_str()) == 1;
}

std::string_view ssi_text() { return std::string_view(Ssi, strnlen(Ssi, sizeof Ssi)); }

void clear_ssi() { std::memset(Ssi, 0, sizeof Ssi); }

}  // namespace cgissi::datamodel

using namespace cgissi::datamodel;

extern "C" {

// Process-wide because qm_generic.h exports them to the device functions
// and plugins; generic_cgi resets them for each request.
int is_lock = 0;
int need_reboot = 0;
int need_factory = 0;

int get_lock(void) {
    return quelm::guarded(-1, __func__, [] {
        int rc = 0;
        if (is_lock == 0) rc = QM_FILE_lock();
        is_lock = 1;
        return rc;
    });
}

int generic_cgi(int, char **) {
    // A reboot or reset asked for by an earlier request is not this one's.
    need_reboot = 0;
    need_factory = 0;
    if (cgiInitResources(nullptr) != 0) {
        generic_error("generic.cgi");
        cgi_out_flush();
    } else {
        quelm::guarded(__func__, serve_request);
        cgiFreeResources();
    }
    cgi_out_finish();
    if (need_reboot != 0) QM_SYS_reboot(0);
    if (need_factory != 0) quelm::guarded(__func__, run_factory_reset);
    need_reboot = 0;
    need_factory = 0;
    return 0;
}

int generic_ssi(const char *argument) {
    quelm::guarded(__func__, [&] { print_read(argument); });
    token_ssi_autolearn = 0;
    return QM_err_get();
}

}  // extern "C"
