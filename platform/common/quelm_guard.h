// The one policy at the C edge: no exception crosses it.
//
// Every function that C callers (plugins, pages' helpers, the platform's
// users) reach runs its body through guarded(): an exception, memory
// exhaustion included, becomes the function's documented error result and
// one log line naming the function.
//
//     extern "C" int QM_Something(const char *x) {
//         return quelm::guarded(-1, __func__, [&] { return something(x); });
//     }
#pragma once

#include <exception>
#include <utility>

#include "quelm_log.h"

namespace quelm {

template <typename Result, typename Body>
Result guarded(Result fallback, const char *function, Body &&body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception &e) {
        log::print(LOG_ERR, "%s: %s", function, e.what());
    } catch (...) {
        log::print(LOG_ERR, "%s: unexpected failure", function);
    }
    return fallback;
}

// For functions without a result.
template <typename Body>
void guarded(const char *function, Body &&body) noexcept {
    guarded(0, function, [&] {
        std::forward<Body>(body)();
        return 0;
    });
}

}  // namespace quelm
