#include "event_log.h"

#include <cstdio>
#include <ctime>

#include <fcntl.h>

#include "qm_config.h"
#include "quelm_owned.h"
#include "quelm_root.h"

namespace quelm::platform {

int record_event(std::string_view gateway_path, std::string_view event, std::string_view argument) {
    constexpr std::size_t kStampSize = 32;
    char stamp[kStampSize];
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    if (gmtime_r(&now, &utc) == nullptr || std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
        return QM_ERR_STORAGE;
    char line[kMaxEventLine];
    int n = std::snprintf(line, sizeof line, "%s %.*s %.*s\n", stamp, static_cast<int>(event.size()), event.data(),
                          static_cast<int>(argument.size()), argument.data());
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof line) return QM_ERR_STORAGE;
    UniqueFd fd(::open(quelm::root_path(gateway_path).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!fd) return QM_ERR_STORAGE;
    ssize_t written = ::write(fd.get(), line, static_cast<std::size_t>(n));
    return written == n ? QM_ERR_NONE : QM_ERR_STORAGE;
}

}  // namespace quelm::platform
