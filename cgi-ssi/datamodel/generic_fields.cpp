// The value fields of a "generic.cgi" request: read, write, storeonly,
// writes, create, clear, delete/remove and reset, and the error text they
// accumulate.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "cgic.h"
#include "datamodel/datamodel_internal.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_login.h"
#include "qm_token.h"
#include "util/policy.h"
#include "quelm_chars.h"
#include "quelm_config_errors.h"
#include "quelm_log.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace cgissi::datamodel {
namespace {

using quelm::MallocString;

// compat: most error texts end in a blank, so that appended texts read
// apart; pages show and compare them as they are.
constexpr const char *kNoAccess = "Your token does not give you access to the object %s. ";
constexpr const char *kUnableToCreate = "Unable to create the object %s : %d ";
constexpr const char *kUnableToWriteValue = "Unable to write the value %s for %s_%s : %d. ";

// Error codes of the answer.
enum : std::uint32_t {
    kErrorReadRefused = 1,
    kErrorFormat = 2,
    kErrorBase64 = 4,
    kErrorCreate = 5,
    kErrorWrite = 6,
    kErrorForeignRule = 7,
    kErrorRefused = 8,
    kErrorReset = 9,
};

constexpr int kNothingToDelete = 7;  // QM_DAT_deleteobject: no such object

// has_right answers other than 1 that clear and delete accept: they only
// refuse a plain 0.
bool not_refused(const GenericRequest &request, const std::string &path) {
    return has_right(request.token.rights, rights_path(path).c_str()) != 0;
}

// A rule is an object with a readable integer "User"; it belongs to the
// web user only when that is 1.
bool foreign_rule(const std::string &object) {
    int user = 0;
    return GetPropertyIntValue(object.c_str(), "User", &user) == 0 && user != 1;
}

std::string formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted(const char *format, ...) {
    char text[kMessageSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::pair<std::string, std::string> split_last(const std::string &name) {
    const std::size_t cut = name.rfind('_');
    return {name.substr(0, cut), name.substr(cut + 1)};
}

// The value of a type-14 secret arrives base64-encoded and encrypted with
// the request's "token" field. Nothing when decryption fails (nothing is
// then written: the platform would refuse no value); the text as received
// when it is not base64.
std::optional<std::string> decrypted_secret(const std::string &value, GenericRequest &request) {
    char token[kFormTokenSize] = "";
    cgiFormString("token", token, sizeof token);
    char decoded[kCryptSize];
    if (decode64(value.c_str(), decoded, sizeof decoded) == nullptr) {
        set_cgi_error(request, kErrorBase64, "%s", "Error: Bad base64 signature");
        // The legacy policy stores such a value as plain text.
        if (cgissi::policy::compat_mode()) return value;
        return std::nullopt;
    }
    char plain[kCryptSize];
    if (decrypt_post_value(token, decoded, plain, sizeof plain) == nullptr) {
        // compat: two blanks after "Error:", as pages compare the text.
        set_cgi_error(request, kErrorFormat, "%s", "Error:  Bad Crypt signature");
        return std::nullopt;
    }
    return std::string(plain);
}

bool encrypted_secret(const std::string &name) {
    int type = 0;
    return schema_type(name.c_str(), type) && type == kTypeSecretEncrypted;
}

// By default an encrypted secret is stored only decrypted whichever way
// its name was given; the legacy policy decrypts it only when the path as
// written names it.
void decrypt_resolved_secret(const std::string &path, const std::string &resolved, std::optional<std::string> &value,
                             GenericRequest &request) {
    if (cgissi::policy::compat_mode() || !value || resolved == path || encrypted_secret(path)) return;
    if (encrypted_secret(resolved)) value = decrypted_secret(*value, request);
}

// By default every write path honours rule ownership; the legacy policy
// checks it on "write" only.
bool foreign_rule_refused(const std::string &object, const char *field, GenericRequest &request) {
    if (cgissi::policy::compat_mode() || !foreign_rule(object)) return false;
    set_cgi_error(request, kErrorForeignRule, "It's forbidden to %s on a rule that does not belong to you (%s). ",
                  field, object.c_str());
    return true;
}

// By default a write that would make a missing instance needs the
// token's create right for its list; the legacy policy creates it.
bool creation_allowed(const std::string &object, GenericRequest &request) {
    if (cgissi::policy::compat_mode() || may_create_instance(object)) return true;
    set_cgi_error(request, kErrorCreate, "No right to create %s. ", object.c_str());
    return false;
}

// Creates the object of a property that has no value yet. The failure is
// recorded twice, once without a code, as it always was.
void create_for_write(const std::string &object, GenericRequest &request) {
    const int rc = QM_DAT_createobject(object.c_str(), 0);
    if (rc != 0) {
        quelm::log::print(LOG_WARNING, "write: cannot create %s: %s (data-model error %d)",
                          object.c_str(), quelm::config_error_text(rc), rc);
        append_error_text(request, formatted(kUnableToCreate, object.c_str(), rc));
        set_cgi_error(request, kErrorCreate, kUnableToCreate, object.c_str(), rc);
    }
}

// A failure names the value unless the property is a secret (known_secret
// or so typed in the schema).
void set_property(const std::string &object, const std::string &property, const std::string &value,
                  bool store_only, bool known_secret, GenericRequest &request) {
    const int rc = QM_DAT_setobjproperty(object.c_str(), property.c_str(), value.c_str(), store_only ? 1 : 0);
    if (rc == 0) quelm::log::print(LOG_INFO, "wrote %s_%s", object.c_str(), property.c_str());
    if (rc != 0) {
        quelm::log::print(LOG_WARNING, "write %s_%s refused: %s (data-model error %d)", object.c_str(),
                          property.c_str(), quelm::config_error_text(rc), rc);
        const bool secret = known_secret || is_secret_name(object + "_" + property);
        const std::string shown = secret ? std::string(json::kMask) : value;
        set_cgi_error(request, kErrorWrite, kUnableToWriteValue, shown.c_str(), object.c_str(), property.c_str(), rc);
    }
}

// Splits "OBJECT:REST" and checks the token's rights on the object; records
// the format error (wrong_format names the field) or the refusal and gives
// nothing when either fails.
std::optional<std::size_t> granted_object_field(const std::string &text, GenericRequest &request,
                                                 const char *wrong_format, std::string &object) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        set_cgi_error(request, kErrorFormat, wrong_format, text.c_str());
        return std::nullopt;
    }
    object = text.substr(0, colon);
    if (!granted(request, object)) {
        set_cgi_error(request, kErrorRefused, kNoAccess, object.c_str());
        return std::nullopt;
    }
    return colon;
}

}  // namespace

void append_error_text(GenericRequest &request, std::string_view text) {
    char *error_text = request.token.error_text;
    const std::size_t used = strnlen(error_text, kErrorTextSize - 1);
    const std::size_t n = std::min(text.size(), kErrorTextSize - 1 - used);
    std::memcpy(error_text + used, text.data(), n);
    error_text[used + n] = '\0';
}

void set_cgi_error(GenericRequest &request, std::uint32_t code, const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(request.token.message, sizeof request.token.message, format, args);
    va_end(args);
    append_error_text(request, request.token.message);
    request.error_code = code;
}

void read_cgi_value(std::string &path, GenericRequest &request) {
    if (!granted(request, path)) {
        set_cgi_error(request, kErrorReadRefused, kNoAccess, path.c_str());
        return;
    }
    ResultTree tree;
    const bool found = read_tree(path, tree);
    request.answer.key(path);
    if (found && tree.root->has_children()) {
        write_tree(tree.root, true);
    } else {
        request.answer.string("", json::Escape::strict);
        // The latest message goes into the error text twice, with no code:
        // it is shown only when another field fails.
        const std::string message = request.token.message;
        append_error_text(request, message);
        append_error_text(request, message);
    }
}

void write_cgi_value(std::string &text, GenericRequest &request) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        set_cgi_error(request, kErrorFormat, "Wrong format when trying to write %s (write=PROPERTY:VALUE). ",
                      text.c_str());
        return;
    }
    const std::string path = text.substr(0, colon);
    std::optional<std::string> value = text.substr(colon + 1);
    int type = 0;
    const bool typed = schema_type(path.c_str(), type);
    if (typed && type == kTypeSecretEncrypted) value = decrypted_secret(*value, request);

    MallocString computed(compute_name(path.c_str()));
    const std::string resolved = computed ? computed.get() : path;
    if (!granted(request, path) && !granted(request, resolved)) {
        set_cgi_error(request, kErrorRefused, kNoAccess, path.c_str());
        return;
    }
    decrypt_resolved_secret(path, resolved, value, request);

    request.modified = true;
    if (resolved.find('_') == std::string::npos) {
        set_cgi_error(request, kErrorWrite, "Unable to write to the object (%s). ", resolved.c_str());
        return;
    }
    const auto [object, property] = split_last(resolved);
    MallocString current(QM_DAT_getobjproperty(object.c_str(), property.c_str()));
    const bool created = !current;
    if (created && !creation_allowed(object, request)) return;
    if (created) create_for_write(object, request);
    if (!created && object != request.last_written && foreign_rule(object)) {
        set_cgi_error(request, kErrorForeignRule,
                      "It's forbidden to write on a rule that does not belong to you (%s). ", object.c_str());
        return;
    }
    if (value && (created || *value != current.get())) {
        set_property(object, property, *value, request.store_only, typed && is_secret_type(type), request);
    }
    request.last_written = object;
}

void writes_cgi_value(std::string &text, GenericRequest &request) {
    // Writes answer to the token like write does and do not mark the
    // request modified (their changes are saved only with another field's).
    // The legacy policy applies no rule ownership to them.
    std::string object;
    const std::optional<std::size_t> colon =
        granted_object_field(text, request, "Wrong format when trying to writes %s (writes=PROPERTY:VALUES). ", object);
    if (!colon) return;
    if (foreign_rule_refused(object, "writes", request)) return;
    bool first = true;
    quelm::split(std::string_view(text).substr(*colon + 1), '|', [&](std::string_view item) {
        const bool is_first = std::exchange(first, false);
        const std::size_t equal = item.find('=');
        if (equal == std::string_view::npos) return true;
        const std::string property(item.substr(0, std::min(equal, kWritesPropertySize - 1)));
        const std::string value(item.substr(equal + 1));
        if (is_first) {
            MallocString current(QM_DAT_getobjproperty(object.c_str(), property.c_str()));
            if (!current && !creation_allowed(object, request)) return false;
            if (!current) {
                const int rc = QM_DAT_createobject(object.c_str(), 0);
                if (rc != 0) set_cgi_error(request, kErrorCreate, kUnableToCreate, object.c_str(), rc);
            }
        }
        std::optional<std::string> stored = value;
        if (!cgissi::policy::compat_mode() && encrypted_secret(object + "_" + property)) {
            stored = decrypted_secret(value, request);
        }
        if (stored) set_property(object, property, *stored, false, false, request);
        return true;
    });
}

void create_cgi_value(std::string &list, GenericRequest &request) {
    const int instance = create_object(list.c_str());
    if (instance < 1) {
        set_cgi_error(request, kErrorCreate, "Failed to create %s", list.c_str());
        return;
    }
    last_created_indice = instance;
    request.answer.compact_member(list, std::to_string(instance));
    request.modified = true;
    // The creation granted the new instance's fields.
    get_token_rights(&request.token);
}

void clear_cgi_value(std::string &list, GenericRequest &request) {
    if (!not_refused(request, list)) {
        set_cgi_error(request, kErrorRefused, kNoAccess, list.c_str());
        return;
    }
    int type = 0;
    if (!schema_type(list.c_str(), type) || type != kTypeList) {
        append_error_text(request, formatted("Unable to delete %s, it is not a list. ", list.c_str()));
        return;
    }
    MallocString count(QM_DAT_getobjcount(list.c_str()));
    if (!count) return;
    quelm::split(count.get(), ',', [&](std::string_view item) {
        // The digits at the start of the item; a 0 is skipped.
        std::size_t digits = 0;
        while (digits < item.size() && quelm::is_digit(item[digits])) ++digits;
        const std::string number(item.substr(0, digits));
        const unsigned long n = number.empty() ? 0 : std::strtoul(number.c_str(), nullptr, 10);
        if (n == 0) return;
        const std::string instance = list + "_" + std::to_string(n);
        if (foreign_rule(instance)) return;
        if (QM_DAT_deleteobject(instance.c_str(), 0) != 0) {
            append_error_text(request, formatted("Error deleting %s. ", instance.c_str()));
        } else {
            request.modified = true;
        }
    });
}

void delete_cgi_value(std::string &object, GenericRequest &request) {
    if (!not_refused(request, object)) {
        set_cgi_error(request, kErrorRefused, kNoAccess, object.c_str());
        return;
    }
    if (foreign_rule(object)) {
        set_cgi_error(request, kErrorForeignRule, "Error deleting %s.", object.c_str());
        return;
    }
    const int rc = QM_DAT_deleteobject(object.c_str(), 0);
    if (rc == 0) {
        request.modified = true;
    } else if (rc == kNothingToDelete) {
        // compat: "an void object", the message's own spelling.
        QM_LOG_print("Warning: trying to delete an void object : %s\n", object.c_str());
    }
}

void reset_cgi_value(std::string &text, GenericRequest &request) {
    std::string object;
    const std::optional<std::size_t> colon =
        granted_object_field(text, request, "Wrong format when trying to write %s (reset=PROPERTY:VALUE). ", object);
    if (!colon) return;
    if (foreign_rule_refused(object, "reset", request)) return;
    const int flag = text[*colon + 1] == '1' ? 1 : 0;
    if (QM_DAT_resetobjdata(object.c_str(), flag) == 0) {
        request.modified = true;
    } else {
        set_cgi_error(request, kErrorReset, "Error while trying to reset %s. ", object.c_str());
    }
}

}  // namespace cgissi::datamodel
