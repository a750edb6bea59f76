// What every fuzz target shares: a quiet process, a gateway root made once
// per process, the response captured into memory, and the one way to
// report a broken property (an abort, which libFuzzer records as a crash).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace fuzz {

// Keeps messages off the system log (they are still formatted and escaped)
// and binds the FastCGI streams to the process's own. Runs at start-up of
// every target (a static initializer of fuzz_support.cpp).
void quiet_process();

// A gateway root as "qmcfg init" makes it, under /tmp, made on the first
// call: QUELM_ROOT names it and the configuration library is open on it.
// It is removed when the process exits normally.
const std::string &gateway_root();

// Everything written to the response while `write` ran.
std::string captured(const std::function<void()> &write);

// A finding: prints what broke and the input's size, then aborts.
[[noreturn]] void fail(const char *what);
inline void require(bool holds, const char *what) {
    if (!holds) fail(what);
}

// The input as text.
inline std::string_view text_of(const std::uint8_t *data, std::size_t size) {
    return std::string_view(reinterpret_cast<const char *>(data), size);
}

// Cuts off the first `separator`-ended piece of input (all of it when the
// separator does not occur).
std::string_view take_until(std::string_view &input, char separator);

}  // namespace fuzz
