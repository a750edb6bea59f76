// Built-in SSI symbols and the routed symbol forms ("token=", "cli=",
// "fct=", "create=").
#include "libssi/ssi_symbols.h"

#include <cstring>

#include "cgi_output.h"
#include "libssi/ssi_hooks.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "ssi.h"

// Searched in order by exact name; get_nbplugins() reports the row count.
extern "C" const ssi_builtin_symbol plugins[] = {
    {"iCgiError", get_cgierror},
    {"iFirmwareProgression", cgissi::ssi::hook_firmware_progression},
    {"sNasPlaylists", cgissi::ssi::hook_nas_playlists},
    {"sNasFullPlaylists", cgissi::ssi::hook_nas_fullplaylists},
};
static_assert(sizeof plugins / sizeof plugins[0] == 4);

namespace cgissi::ssi {
namespace {


ssi_symbol_callback installed_callback = nullptr;

void log_symbol_outcome(const char *symbol) {
    if (QM_err_get() < 0) {
        QM_LOG_print("SSI error for symbol <%s> : %d", symbol, QM_err_get());
    } else {
        QM_LOG_print("SSI unknown symbol <%s>", symbol);
    }
}

// The routed forms are recognised anywhere in the name, but their argument
// is taken at a fixed distance from its start: pages always write them as
// prefixes, and plugins built against this rule depend on it.
void dispatch_routed(const char *symbol) {
    if (std::strstr(symbol, "token=") != nullptr) {
        const char *arg = symbol + std::strlen("token=");
        if (hook_token(arg) == -1) QM_LOG_print("Unable to create token for %s", arg);
    } else if (std::strstr(symbol, "cli=") != nullptr) {
        const char *arg = symbol + std::strlen("cli=");
        if (hook_cli(arg) == -1) QM_LOG_print("*Invalid cli object %s", arg);
    } else if (std::strstr(symbol, "fct=") != nullptr) {
        const char *arg = symbol + std::strlen("fct=");
        if (hook_fct(arg) == -1) QM_LOG_print("*Invalid function %s", arg);
    } else if (std::strncmp(symbol, "create=", std::strlen("create=")) == 0) {
        hook_create(symbol + std::strlen("create="));
    } else {
        log_symbol_outcome(symbol);
        cgi_out_flush();
    }
}

}  // namespace

ssi_symbol_callback symbol_callback() { return installed_callback; }

}  // namespace cgissi::ssi

using namespace cgissi::ssi;

extern "C" {

void set_ssi_do_plugin(ssi_symbol_callback callback) { installed_callback = callback; }

int do_plugin(const char *symbol) {
    if (symbol == nullptr) return 0;
    std::memset(Ssi, 0, sizeof Ssi);
    for (const ssi_builtin_symbol &row : plugins) {
        if (std::strcmp(row.name, symbol) != 0) continue;
        QM_err_set(row.producer());
        // A producer may fill all of Ssi; it is printed as a bounded text.
        Ssi[sizeof Ssi - 1] = '\0';
        if (Ssi[0] != '\0') ssiprintf("%s", Ssi);
        if (QM_err_get() < 0) QM_LOG_print("SSI error for symbol <%s> : %d", symbol, QM_err_get());
        cgi_out_flush();
        return 0;
    }
    cgi_out_flush();
    dispatch_routed(symbol);
    return 0;
}

}  // extern "C"
