// The host platform's record of what it was asked to do to the machine.
// Nothing is rebooted, reset or restarted on a host: each request becomes
// one line "<UTC time stamp> <event> <argument>" appended to a log under
// the gateway root, so that tests and developers can see it.
#pragma once

#include <string_view>

namespace quelm::platform {

// reboot, factory and status requests.
inline constexpr std::string_view kEventLogPath = "/var/quelm/platform/events.log";
// Property changes handed to the services ("apply <name>").
inline constexpr std::string_view kApplyLogPath = "/var/quelm/platform/apply.log";

constexpr std::size_t kMaxEventLine = 512;

// Appends the line with one write (lines of concurrent processes stay
// whole). Returns 0, or QM_ERR_STORAGE when the log cannot be written or
// the line would exceed kMaxEventLine.
int record_event(std::string_view gateway_path, std::string_view event, std::string_view argument);

}  // namespace quelm::platform
