// What the data-model library's error numbers (QM_ERR_* of qm_config.h)
// mean, in words for messages and log lines. The numbers are the C
// interface's; qmcfg checks at compile time that they still agree.
#pragma once

namespace quelm {

inline const char *config_error_text(int code) {
    switch (code) {
    case 0: return "no error";
    case 2: return "unknown name, or not the kind of name this command takes";
    case 3: return "value does not fit the property's type";
    case 4: return "the configuration database failed";
    case 5: return "instance already exists";
    case 6: return "not an instance of a List or Array (Arrays change at their end only)";
    case 7: return "nothing stored under that name";
    case 8: return "the configuration is locked by another process";
    case 9: return "the root is not initialised (run qmcfg init)";
    default: return "failed";
    }
}

}  // namespace quelm
