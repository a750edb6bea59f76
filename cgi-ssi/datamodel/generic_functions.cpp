// Named functions called through the data-model front ends: the "fct"
// field of "generic.cgi", the SSI hook "fct=", and tfprintf, the output
// path of device functions.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "cgi_output.h"
#include "datamodel/datamodel_internal.h"
#include "plugins/registry.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "ssi.h"
#include "ssi_buffer.h"
#include "session/session_store.h"
#include "util/policy.h"

namespace cgissi::datamodel {
namespace {

constexpr std::uint32_t kErrorRefused = 8;
constexpr std::uint32_t kErrorFunction = 31;
constexpr int kNotHandled = -1;  // call_shared_genericfct: no such function

bool callable(const cgi_plugin &row) { return row.handler != nullptr; }
bool callable(const ssi_builtin_symbol &row) { return row.producer != nullptr; }

// Calls visit(row) for every row of table (count rows) named name whose
// function is set; false when there is none.
template <class Row, class Visit>
bool for_each_named(const Row *table, int count, const std::string &name, Visit &&visit) {
    bool found = false;
    for (int i = 0; i < count; ++i) {
        const Row &row = table[i];
        if (std::strncmp(row.name, name.c_str(), sizeof row.name) != 0 || !callable(row)) continue;
        found = true;
        visit(row);
    }
    return found;
}

// Functions that reboot, reset or flash the gateway.
constexpr std::string_view kMaintenanceFunctions[] = {"reboot", "factoryReset", "startFTPfwburn"};

// By default a function that changes the configuration (lock flag) or
// maintains the gateway is a state change, served only from the gateway's
// own pages (POSTs were checked by the request loop; this catches GETs),
// and maintenance needs an admin's session. Nothing with the legacy policy.
bool refused_by_policy(const cgi_plugin &row, GenericRequest &request) {
    if (cgissi::policy::compat_mode()) return false;
    bool maintenance = false;
    for (std::string_view name : kMaintenanceFunctions) maintenance = maintenance || name == row.name;
    if ((row.lock != 0 || maintenance) && !cgissi::policy::request_is_same_origin()) {
        set_cgi_error(request, kErrorRefused, "Cross-site call of symbol <%s> refused. ", row.name);
        return true;
    }
    if (maintenance && !cgissi::session::admin_session()) {
        set_cgi_error(request, kErrorRefused, "Symbol <%s> needs an administrator's session. ", row.name);
        return true;
    }
    return false;
}

// Every row of the device function table with that name, in mode "cgi".
// False when there is none.
bool call_device_functions(const FunctionCall &call, GenericRequest &request) {
    return for_each_named(cgi_plugins, get_nbcgiplugins(), call.name, [&](const cgi_plugin &row) {
        if (refused_by_policy(row, request)) {
            request.answer.string("", json::Escape::strict);
            return;
        }
        if (row.lock != 0) get_lock();
        const int rc = row.handler("cgi", call.argument_ptr());
        // Device functions leave JSON (quotes included) in Ssi.
        request.answer.raw(ssi_text());
        clear_ssi();
        if (rc != 0) {
            QM_LOG_print("CGI(1) error for symbol <%s>", call.name.c_str());
            set_cgi_error(request, kErrorFunction, "CGI(1) error for symbol <%s>", call.name.c_str());
        }
    });
}

// Every built-in SSI symbol with that name, without arguments. False when
// there is none.
bool call_builtin_symbols(const FunctionCall &call, GenericRequest &request) {
    return for_each_named(plugins, get_nbplugins(), call.name, [&](const ssi_builtin_symbol &row) {
        const int rc = row.producer();
        // A symbol's text is a bare value: quoted here, as it stands.
        if (!ssi_text().empty()) request.answer.string(ssi_text(), json::Escape::verbatim);
        clear_ssi();
        if (rc != 0) {
            QM_LOG_print("CGI(2) error for symbol <%s> : %d", call.name.c_str(), QM_err_get());
            set_cgi_error(request, kErrorFunction, "CGI(2) error for symbol <%s>", call.name.c_str());
        }
    });
}

// The producer's text left in Ssi, printed in the page's escaping mode.
void print_ssi_result(const std::string &name) {
    if (!ssi_text().empty()) ssiprintf("%s", std::string(ssi_text()).c_str());
    if (QM_err_get() < 0) QM_LOG_print("SSI error for function <%s> : %d", name.c_str(), QM_err_get());
}

// The "fct=" hook: the shared libraries first, then the device table.
void call_for_page(const FunctionCall &call) {
    clear_ssi();
    if (call_shared_genericfct("ssi", call.name.c_str(), call.argument_ptr()) != kNotHandled) {
        print_ssi_result(call.name);
        return;
    }
    const bool found = for_each_named(cgi_plugins, get_nbcgiplugins(), call.name, [&](const cgi_plugin &row) {
        QM_err_set(row.handler("ssi", call.argument_ptr()));
        print_ssi_result(call.name);
    });
    if (!found) {
        json::Writer(json::kAnswerLayout).string("", json::Escape::strict);
        // compat: the message ends in a line break of its own.
        QM_LOG_print("SSI : %s function not found\n", call.name.c_str());
    }
}

// Puts text (size bytes as formatted) in front of fct_buffer and writes
// the buffer out when direct is set.
void buffer_output(quelm::MallocString text, std::size_t size) {
    if (fct_buffer == nullptr || fct_buffer[0] == '\0') {
        std::free(fct_buffer);
        fct_buffer = text.release();
    } else {
        // Newest first.
        const std::size_t added = size;
        const std::size_t old = std::strlen(fct_buffer);
        auto *joined = static_cast<char *>(std::malloc(added + old + 1));
        if (joined != nullptr) {
            std::memcpy(joined, text.get(), added);
            std::memcpy(joined + added, fct_buffer, old + 1);
            std::free(fct_buffer);
            fct_buffer = joined;
        }
    }
    if (direct != 0 && fct_buffer != nullptr && fct_buffer[0] != '\0') {
        cgi_out_write(fct_buffer, std::strlen(fct_buffer));
        std::free(fct_buffer);
        fct_buffer = nullptr;
    }
}

}  // namespace

FunctionCall split_call(std::string_view text) {
    FunctionCall call;
    const std::size_t colon = text.find(':');
    call.name = std::string(text.substr(0, colon));
    if (colon != std::string_view::npos) {
        call.arguments = std::string(text.substr(colon + 1));
        call.has_arguments = true;
    }
    return call;
}

void fct_cgi_value(std::string &text, GenericRequest &request) {
    const FunctionCall call = split_call(text);
    if (!granted(request, call.name)) {
        set_cgi_error(request, kErrorRefused, "Your token does not give you access to the object %s. ",
                      call.name.c_str());
        return;
    }
    request.modified = true;
    request.answer.key(call.name);
    clear_ssi();

    // The device table first, then the shared libraries, then the built-in
    // symbols: the reverse of the "fct=" hook's order for the first two.
    bool found = call_device_functions(call, request);
    if (!found) {
        get_lock();
        found = call_shared_genericfct("cgi", call.name.c_str(), call.argument_ptr()) != kNotHandled;
    }
    if (!found) found = call_builtin_symbols(call, request);
    if (!found) {
        QM_LOG_print("CGI error : symbol <%s> doesn't exist", call.name.c_str());
        set_cgi_error(request, kErrorFunction, "CGI error : symbol <%s> doesn't exist", call.name.c_str());
    }
}

}  // namespace cgissi::datamodel

using namespace cgissi::datamodel;

extern "C" {

// Process-wide because qm_generic.h exports them to the device functions
// and plugins that call tfprintf.
char *fct_buffer = nullptr;
int direct = 1;

int generic_fct(const char *argument) {
    quelm::guarded(__func__, [&] { call_for_page(split_call(argument != nullptr ? argument : "")); });
    return QM_err_get();
}

int tfprintf(void *, const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *formatted = nullptr;
    const int n = vasprintf(&formatted, format, args);
    va_end(args);
    if (n < 0) return 0;
    quelm::MallocString text(formatted);
    quelm::guarded(__func__, [&] { buffer_output(std::move(text), static_cast<std::size_t>(n)); });
    return 0;
}

}  // extern "C"
