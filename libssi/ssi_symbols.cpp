// Built-in SSI symbols and the routed symbol forms ("token=", "cli=",
// "fct=", "create=").
#include "ssi_symbols.h"

#include <cstring>
#include <iterator>

#include "cgi_output.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_maintenance.h"
#include "qm_nas.h"
#include "qm_token.h"
#include "quelm_guard.h"
#include "ssi.h"

namespace cgissi::ssi {
namespace {

// Process-wide because the C interface makes it so: set_ssi_do_plugin
// installs it for the requests that follow.
ssi_symbol_callback installed_callback = nullptr;

}  // namespace
}  // namespace cgissi::ssi

// Searched in order by exact name.
extern "C" const ssi_builtin_symbol plugins[] = {
    {"iCgiError", get_cgierror},
    {"iFirmwareProgression", get_firmware_progression},
    {"sNasPlaylists", get_nas_playlists},
    {"sNasFullPlaylists", get_nas_fullplaylists},
};

namespace cgissi::ssi {
namespace {

void log_symbol_outcome(const char *symbol) {
    if (QM_err_get() < 0) {
        QM_LOG_print("SSI error for symbol <%s> : %d", symbol, QM_err_get());
    } else {
        QM_LOG_print("SSI unknown symbol <%s>", symbol);
    }
}

// compat: the routed forms are recognised anywhere in the name, but their
// argument is taken at a fixed distance from its start: pages always write
// them as prefixes, and plugins built against this rule depend on it.
void dispatch_routed(const char *symbol) {
    if (std::strstr(symbol, "token=") != nullptr) {
        const char *arg = symbol + std::strlen("token=");
        if (create_token(arg) == -1) QM_LOG_print("Unable to create token for %s", arg);
    } else if (std::strstr(symbol, "cli=") != nullptr) {
        const char *arg = symbol + std::strlen("cli=");
        if (generic_ssi(arg) == -1) QM_LOG_print("*Invalid cli object %s", arg);
    } else if (std::strstr(symbol, "fct=") != nullptr) {
        const char *arg = symbol + std::strlen("fct=");
        if (generic_fct(arg) == -1) QM_LOG_print("*Invalid function %s", arg);
    } else if (std::strncmp(symbol, "create=", std::strlen("create=")) == 0) {
        extend_token_create(symbol + std::strlen("create="));
    } else {
        log_symbol_outcome(symbol);
    }
}

void dispatch(const char *symbol) {
    std::memset(Ssi, 0, sizeof Ssi);
    for (const ssi_builtin_symbol &row : plugins) {
        if (std::strcmp(row.name, symbol) != 0) continue;
        QM_err_set(row.producer());
        // A producer may fill all of Ssi; it is printed as a bounded text.
        Ssi[sizeof Ssi - 1] = '\0';
        if (Ssi[0] != '\0') ssiprintf("%s", Ssi);
        if (QM_err_get() < 0) QM_LOG_print("SSI error for symbol <%s> : %d", symbol, QM_err_get());
        return;
    }
    // The output stays in the request's buffer: symbols, like the text
    // around them, go out in few large writes.
    dispatch_routed(symbol);
}

}  // namespace

ssi_symbol_callback symbol_callback() { return installed_callback; }

}  // namespace cgissi::ssi

extern "C" {

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
int get_nbplugins(void) { return static_cast<int>(std::size(plugins)); }

void set_ssi_do_plugin(ssi_symbol_callback callback) { cgissi::ssi::installed_callback = callback; }

int do_plugin(const char *symbol) {
    if (symbol == nullptr) return 0;
    return quelm::guarded(0, __func__, [&] {
        cgissi::ssi::dispatch(symbol);
        return 0;
    });
}

}  // extern "C"
