// The parts of the gateway that SSI symbols reach: the producers of three
// built-in symbols and the four routed symbol forms. Each returns what the
// called part returns (negative on failure); producers write their text
// into Ssi, routed calls print through ssiprintf.
#pragma once

namespace cgissi::ssi {

// Built-in symbol producers ("iFirmwareProgression", "sNasPlaylists",
// "sNasFullPlaylists").
int hook_firmware_progression();
int hook_nas_playlists();
int hook_nas_fullplaylists();

// Routed symbols; `arg` is the text after the prefix.
int hook_token(const char *arg);   // "token=": create an access token
int hook_cli(const char *arg);     // "cli=": data-model read
int hook_fct(const char *arg);     // "fct=": device function
int hook_create(const char *arg);  // "create=": extend a token's rights

}  // namespace cgissi::ssi
