// Bindings of SSI symbols to the firmware, NAS, token, data-model and
// device-function parts. Each is wired to its part as that part lands; until
// then it answers as if the part found nothing: no text, result 0.
#include "libssi/ssi_hooks.h"

#include "qm_generic.h"
#include "qm_token.h"

namespace cgissi::ssi {

int hook_firmware_progression() { return 0; }
int hook_nas_playlists() { return 0; }
int hook_nas_fullplaylists() { return 0; }

int hook_token(const char *arg) { return create_token(arg); }
int hook_cli(const char *arg) { return generic_ssi(arg); }
int hook_fct(const char *arg) { return generic_fct(arg); }
int hook_create(const char *arg) { return extend_token_create(arg); }

}  // namespace cgissi::ssi
