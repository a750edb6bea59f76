// The host platform's record of what it was asked to do to the machine.
// Nothing is rebooted, reset or restarted on a host: each request becomes
// one line "<UTC time stamp> <event> <argument>" appended to a log under
// the gateway root, so that tests and developers can see it.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform.h"  // the two logs: kEventLogPath, kApplyLogPath

namespace quelm::platform {

constexpr std::size_t kMaxEventLine = 512;

// Appends the line with one write (lines of concurrent processes stay
// whole). Returns 0, or QM_ERR_STORAGE when the log cannot be written or
// the line would exceed kMaxEventLine.
int record_event(std::string_view gateway_path, std::string_view event, std::string_view argument);

}  // namespace quelm::platform
