// Generic front ends of the data model: "generic.cgi" (one JSON answer for
// a request's read, write, create, delete, reset and function fields), the
// SSI hooks "cli=" and "fct=", and the output path of device functions.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "cgi_output.h"
#include "cgic.h"
#include "datamodel/datamodel_internal.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_generic.h"
#include "qm_login.h"
#include "qm_node.h"
#include "qm_token.h"
#include "quelm_root.h"
#include "ssi.h"
#include "ssi_buffer.h"
#include "util/text_scan.h"

#include "plugins/registry.h"
#include "ssi.h"

namespace cgissi::datamodel {
namespace {

constexpr const char *kFactoryResetScript = "/etc/quelm/init.d/factory-reset";
constexpr const char *kNoAccess = "Your token does not give you access to the object %s. ";
constexpr const char *kUnableToCreate = "Unable to create the object %s : %d ";
constexpr const char *kUnableToWriteValue = "Unable to write the value %s for %s_%s : %d. ";
constexpr const char *kMaskedValue = "********";

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
    kErrorFunction = 31,
};

constexpr int kNothingToDelete = 7;  // QM_DAT_deleteobject: no such object

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
using Text = std::unique_ptr<char, FreeDeleter>;

struct TreeDeleter {
    void operator()(qm_node *n) const { free_all_node(n); }
};
using Tree = std::unique_ptr<qm_node, TreeDeleter>;

void out(std::string_view text) { cgi_out_write(text.data(), text.size()); }

// `"key" : ` of a member whose key comes from the request.
void print_member_key(std::string_view key) {
    out("\"");
    out(json_key(key));
    out("\" : ");
}

void separate(GenericRequest &request) {
    if (request.printed) out(", ");
}

// Ssi as left by a producer, which may have filled all of it.
std::string_view ssi_text() { return std::string_view(Ssi, strnlen(Ssi, sizeof Ssi)); }

void clear_ssi() { std::memset(Ssi, 0, sizeof Ssi); }

bool granted(const GenericRequest &request, const std::string &path) {
    return has_right(request.token.rights, rights_path(path).c_str()) == 1;
}

// A rule is an object with a readable integer "User"; it belongs to the
// web user only when that is 1.
bool foreign_rule(const std::string &object) {
    int user = 0;
    return GetPropertyIntValue(object.c_str(), "User", &user) == 0 && user != 1;
}

bool secret_name(const std::string &name) {
    int type = 0;
    return schema_type(name.c_str(), type) && is_secret_type(type);
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

std::size_t device_function_count() {
    const int n = get_nbcgiplugins();
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

std::size_t builtin_symbol_count() {
    const int n = get_nbplugins();
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

int shared_function(const char *method, const char *name, const char *param) {
    return call_shared_genericfct(method, name, param);
}

// Runs the factory-reset script through the shell and waits for it. The
// path is passed as the script operand, never as a command line.
void run_factory_reset() {
    const std::string script = quelm::root_path(kFactoryResetScript);
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", script.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    if (pid > 0) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
}

void apply_field(const cgiFormEntry &entry, GenericRequest &request) {
    request.store_only = false;
    const std::string_view name = entry.attr != nullptr ? entry.attr : "";
    std::string value = entry.value != nullptr ? entry.value : "";
    if (name == "delay") {
        // Accepted for the pages that send it; this handler does not wait.
        const char *p = value.c_str();
        int delay = 0;
        if (!quelm::util::scan_int(p, delay) || delay == 0) delay = 1;
    } else if (name == "read") {
        read_cgi_value(value, request);
    } else if (name == "write") {
        get_lock();
        write_cgi_value(value, request);
    } else if (name == "storeonly") {
        get_lock();
        request.store_only = true;
        write_cgi_value(value, request);
    } else if (name == "writes") {
        get_lock();
        writes_cgi_value(value, request);
    } else if (name == "create") {
        get_lock();
        create_cgi_value(value, request);
    } else if (name == "fct") {
        fct_cgi_value(value, request);
    } else if (name == "clear") {
        get_lock();
        clear_cgi_value(value, request);
    } else if (name == "delete" || name == "remove") {
        get_lock();
        delete_cgi_value(value, request);
    } else if (name == "reset") {
        get_lock();
        reset_cgi_value(value, request);
    }
}

void serve(GenericRequest &request) {
    set_cgierror(QM_err_set(0));
    is_lock = 0;
    SSI_Set_Mode(SSI_MODE_JSON);

    cgi_out_printf("Content-Type: text/plain\r\n");
    cgi_out_printf("\r\n");
    cgi_out_printf("{");

    const int token = get_token_rights(&request.token);
    if (token != QM_TOKEN_VALID) {
        // The reason is already in the error text; any code makes it shown.
        request.error_code = static_cast<std::uint32_t>(token);
    } else {
        for (const cgiFormEntry *e = getFormEntries(); e != nullptr; e = e->next) apply_field(*e, request);
    }

    if (request.error_code != 0) {
        separate(request);
        out("\"error\" : \"");
        ssiprintf("%s", request.token.error_text);
        out("\"");
    }
    cgi_out_printf("}\n");
    cgi_out_flush();
    FCGI_Finish();

    if (request.error_code == 0 && request.modified) {
        QM_FILE_commit(0);
    } else if (request.error_code != 0 && request.modified) {
        QM_FILE_revert();
    }
    if (is_lock != 0) {
        is_lock = 0;
        QM_FILE_unlock();
    }
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
    Tree tree(create_tree_full(path.c_str(), nullptr, nullptr));
    separate(request);
    request.printed = true;
    print_member_key(path);
    if (tree && tree->child != nullptr) {
        dump_JSON_tree(tree->child, 1);
    } else {
        out("\"\"");
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
    if (typed && type == kTypeSecretEncrypted) {
        char token[kFormTokenSize] = "";
        cgiFormString("token", token, sizeof token);
        char decoded[kCryptSize];
        if (decode64(value->c_str(), decoded, sizeof decoded) != nullptr) {
            char plain[kCryptSize];
            if (decrypt_post_value(token, decoded, plain, sizeof plain) != nullptr) {
                value = plain;
            } else {
                // Nothing is written: the platform would refuse no value.
                value.reset();
                set_cgi_error(request, kErrorFormat, "%s", "Error:  Bad Crypt signature");
            }
        } else {
            set_cgi_error(request, kErrorBase64, "%s", "Error: Bad base64 signature");
        }
    }

    Text computed(compute_name(path.c_str()));
    const std::string resolved = computed ? computed.get() : path;
    if (!granted(request, path) && !granted(request, resolved)) {
        set_cgi_error(request, kErrorRefused, kNoAccess, path.c_str());
        return;
    }

    request.modified = true;
    if (resolved.find('_') == std::string::npos) {
        set_cgi_error(request, kErrorWrite, "Unable to write to the object (%s). ", resolved.c_str());
        return;
    }
    const auto [object, property] = split_last(resolved);

    Text current(QM_DAT_getobjproperty(object.c_str(), property.c_str()));
    bool created = false;
    if (!current) {
        const int rc = QM_DAT_createobject(object.c_str(), 0);
        if (rc != 0) {
            append_error_text(request, formatted(kUnableToCreate, object.c_str(), rc));
            set_cgi_error(request, kErrorCreate, kUnableToCreate, object.c_str(), rc);
        }
        created = true;
    }
    if (!created && object != request.last_written && foreign_rule(object)) {
        set_cgi_error(request, kErrorForeignRule,
                      "It's forbidden to write on a rule that does not belong to you (%s). ", object.c_str());
        return;
    }
    if (value && (created || *value != current.get())) {
        const int rc = QM_DAT_setobjproperty(object.c_str(), property.c_str(), value->c_str(), request.store_only);
        if (rc != 0) {
            const bool secret = (typed && is_secret_type(type)) || secret_name(resolved);
            set_cgi_error(request, kErrorWrite, kUnableToWriteValue, secret ? kMaskedValue : value->c_str(),
                          object.c_str(), property.c_str(), rc);
        }
    }
    request.last_written = object;
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

void writes_cgi_value(std::string &text, GenericRequest &request) {
    // Writes answer to the token like write does; they still apply no rule
    // ownership and do not mark the request modified (their changes are
    // saved only with another field's).
    std::string object;
    const std::optional<std::size_t> found =
        granted_object_field(text, request, "Wrong format when trying to writes %s (writes=PROPERTY:VALUES). ", object);
    if (!found) return;
    const std::size_t colon = *found;
    const std::string items = text.substr(colon + 1);
    std::size_t start = 0;
    for (bool first = true; start <= items.size(); first = false) {
        std::size_t bar = items.find('|', start);
        if (bar == std::string::npos) bar = items.size();
        const std::string item = items.substr(start, bar - start);
        start = bar + 1;
        const std::size_t equal = item.find('=');
        if (equal == std::string::npos) continue;
        const std::string property = item.substr(0, std::min(equal, kWritesPropertySize - 1));
        const std::string value = item.substr(equal + 1);
        if (first) {
            Text current(QM_DAT_getobjproperty(object.c_str(), property.c_str()));
            if (!current) {
                const int rc = QM_DAT_createobject(object.c_str(), 0);
                if (rc != 0) set_cgi_error(request, kErrorCreate, kUnableToCreate, object.c_str(), rc);
            }
        }
        const int rc = QM_DAT_setobjproperty(object.c_str(), property.c_str(), value.c_str(), 0);
        if (rc != 0) {
            const bool secret = secret_name(object + "_" + property);
            set_cgi_error(request, kErrorWrite, kUnableToWriteValue, secret ? kMaskedValue : value.c_str(),
                          object.c_str(), property.c_str(), rc);
        }
    }
}

void create_cgi_value(std::string &list, GenericRequest &request) {
    const int instance = create_object(list.c_str());
    if (instance < 1) {
        set_cgi_error(request, kErrorCreate, "Failed to create %s", list.c_str());
        return;
    }
    last_created_indice = instance;
    separate(request);
    out("\"");
    out(json_key(list));
    out("\":\"");
    out(std::to_string(instance));
    out("\"");
    request.printed = true;
    request.modified = true;
    // The creation granted the new instance's fields.
    get_token_rights(&request.token);
}

void fct_cgi_value(std::string &text, GenericRequest &request) {
    const std::size_t colon = text.find(':');
    const std::string name = text.substr(0, colon);
    const char *arguments = colon == std::string::npos ? nullptr : text.c_str() + colon + 1;
    if (!granted(request, name)) {
        set_cgi_error(request, kErrorRefused, kNoAccess, name.c_str());
        return;
    }
    separate(request);
    request.printed = true;
    request.modified = true;
    print_member_key(name);
    clear_ssi();

    bool found = false;
    for (std::size_t i = 0; i < device_function_count(); ++i) {
        const cgi_plugin &row = cgi_plugins[i];
        if (std::strncmp(row.name, name.c_str(), sizeof row.name) != 0 || row.handler == nullptr) continue;
        found = true;
        if (row.lock != 0) get_lock();
        const int rc = row.handler("cgi", arguments);
        // Device functions leave JSON (quotes included) in Ssi: printed as is.
        out(ssi_text());
        clear_ssi();
        if (rc != 0) {
            QM_LOG_print("CGI(1) error for symbol <%s>", name.c_str());
            set_cgi_error(request, kErrorFunction, "CGI(1) error for symbol <%s>", name.c_str());
        }
    }
    if (!found) {
        get_lock();
        found = shared_function("cgi", name.c_str(), arguments) != -1;
    }
    if (!found) {
        for (std::size_t i = 0; i < builtin_symbol_count(); ++i) {
            const ssi_builtin_symbol &row = plugins[i];
            if (std::strncmp(row.name, name.c_str(), sizeof row.name) != 0 || row.producer == nullptr) continue;
            found = true;
            const int rc = row.producer();
            if (!ssi_text().empty()) {
                out("\"");
                out(ssi_text());
                out("\"");
            }
            clear_ssi();
            if (rc != 0) {
                QM_LOG_print("CGI(2) error for symbol <%s> : %d", name.c_str(), QM_err_get());
                set_cgi_error(request, kErrorFunction, "CGI(2) error for symbol <%s>", name.c_str());
            }
        }
    }
    if (!found) {
        QM_LOG_print("CGI error : symbol <%s> doesn't exist", name.c_str());
        set_cgi_error(request, kErrorFunction, "CGI error : symbol <%s> doesn't exist", name.c_str());
    }
}

void clear_cgi_value(std::string &list, GenericRequest &request) {
    if (has_right(request.token.rights, rights_path(list).c_str()) == 0) {
        set_cgi_error(request, kErrorRefused, kNoAccess, list.c_str());
        return;
    }
    int type = 0;
    if (!schema_type(list.c_str(), type) || type != kTypeList) {
        append_error_text(request, formatted("Unable to delete %s, it is not a list. ", list.c_str()));
        return;
    }
    Text count(QM_DAT_getobjcount(list.c_str()));
    if (!count) return;
    const std::string_view numbers(count.get());
    std::size_t start = 0;
    while (start < numbers.size()) {
        std::size_t comma = numbers.find(',', start);
        if (comma == std::string_view::npos) comma = numbers.size();
        std::size_t digits = start;
        while (digits < comma && quelm::util::is_digit(numbers[digits])) ++digits;
        const std::string number(numbers.substr(start, digits - start));
        start = comma + 1;
        if (number.empty() || std::strtoul(number.c_str(), nullptr, 10) == 0) continue;
        const std::string instance = list + "_" + std::to_string(std::strtoul(number.c_str(), nullptr, 10));
        if (foreign_rule(instance)) continue;
        if (QM_DAT_deleteobject(instance.c_str(), 0) != 0) {
            append_error_text(request, formatted("Error deleting %s. ", instance.c_str()));
        } else {
            request.modified = true;
        }
    }
}

void delete_cgi_value(std::string &object, GenericRequest &request) {
    if (has_right(request.token.rights, rights_path(object).c_str()) == 0) {
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
        QM_LOG_print("Warning: trying to delete an void object : %s\n", object.c_str());
    }
}

void reset_cgi_value(std::string &text, GenericRequest &request) {
    std::string object;
    const std::optional<std::size_t> found =
        granted_object_field(text, request, "Wrong format when trying to write %s (reset=PROPERTY:VALUE). ", object);
    if (!found) return;
    const std::size_t colon = *found;
    const int flag = text[colon + 1] == '1' ? 1 : 0;
    if (QM_DAT_resetobjdata(object.c_str(), flag) == 0) {
        request.modified = true;
    } else {
        set_cgi_error(request, kErrorReset, "Error while trying to reset %s. ", object.c_str());
    }
}

}  // namespace cgissi::datamodel

using namespace cgissi::datamodel;

extern "C" {

int is_lock = 0;
int need_reboot = 0;
int need_factory = 0;
char *fct_buffer = nullptr;
int direct = 1;

int get_lock(void) {
    int rc = 0;
    if (is_lock == 0) rc = QM_FILE_lock();
    is_lock = 1;
    return rc;
}

int generic_cgi(int, char **) {
    // A reboot or reset asked for by an earlier request is not this one's.
    need_reboot = 0;
    need_factory = 0;
    if (cgiInitResources(nullptr) != 0) {
        generic_error("generic.cgi");
        cgi_out_flush();
    } else {
        try {
            auto request = std::make_unique<GenericRequest>();
            serve(*request);
        } catch (...) {
            QM_LOG_print("%s %d: out of memory", __func__, __LINE__);
        }
        cgiFreeResources();
    }
    FCGI_Finish();
    if (need_reboot != 0) QM_SYS_reboot(0);
    if (need_factory != 0) run_factory_reset();
    need_reboot = 0;
    need_factory = 0;
    return 0;
}

int generic_ssi(const char *argument) {
    try {
        token_shadow_password = 1;
        std::string path = argument != nullptr ? argument : "";
        CliOptions options;
        strip_cli_options(path, options);
        if (options.autolearn) token_ssi_autolearn = 1;
        token_shadow_password = options.shadow;
        Tree tree(create_tree_full(path.c_str(), nullptr, nullptr));
        if (tree && tree->child != nullptr) {
            dump_JSON_tree(tree->child, token_shadow_password);
        } else {
            ssiprintf("%s", "undefined");
        }
        cgi_out_flush();
    } catch (...) {
        QM_LOG_print("%s %d: out of memory", __func__, __LINE__);
    }
    token_ssi_autolearn = 0;
    return QM_err_get();
}

int generic_fct(const char *argument) {
    try {
        const std::string text = argument != nullptr ? argument : "";
        const std::size_t colon = text.find(':');
        const std::string name = text.substr(0, colon);
        const char *arguments = colon == std::string::npos ? nullptr : text.c_str() + colon + 1;
        clear_ssi();

        if (shared_function("ssi", name.c_str(), arguments) != -1) {
            if (!ssi_text().empty()) ssiprintf("%s", std::string(ssi_text()).c_str());
            if (QM_err_get() < 0) QM_LOG_print("SSI error for function <%s> : %d", name.c_str(), QM_err_get());
            return QM_err_get();
        }
        bool found = false;
        for (std::size_t i = 0; i < device_function_count(); ++i) {
            const cgi_plugin &row = cgi_plugins[i];
            if (std::strncmp(row.name, name.c_str(), sizeof row.name) != 0 || row.handler == nullptr) continue;
            found = true;
            QM_err_set(row.handler("ssi", arguments));
            if (!ssi_text().empty()) ssiprintf("%s", std::string(ssi_text()).c_str());
            if (QM_err_get() < 0) QM_LOG_print("SSI error for function <%s> : %d", name.c_str(), QM_err_get());
        }
        if (!found) {
            out("\"\"");
            QM_LOG_print("SSI : %s function not found\n", name.c_str());
        }
    } catch (...) {
        QM_LOG_print("%s %d: out of memory", __func__, __LINE__);
    }
    return QM_err_get();
}

int tfprintf(void *, const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *text = nullptr;
    const int n = vasprintf(&text, format, args);
    va_end(args);
    if (n < 0) return 0;
    if (fct_buffer == nullptr || fct_buffer[0] == '\0') {
        std::free(fct_buffer);
        fct_buffer = text;
    } else {
        // Newest first.
        const std::size_t old = std::strlen(fct_buffer);
        char *joined = static_cast<char *>(std::malloc(static_cast<std::size_t>(n) + old + 1));
        if (joined != nullptr) {
            std::memcpy(joined, text, static_cast<std::size_t>(n));
            std::memcpy(joined + n, fct_buffer, old + 1);
            std::free(fct_buffer);
            fct_buffer = joined;
        }
        std::free(text);
    }
    if (direct != 0 && fct_buffer != nullptr && fct_buffer[0] != '\0') {
        cgi_out_write(fct_buffer, std::strlen(fct_buffer));
        std::free(fct_buffer);
        fct_buffer = nullptr;
    }
    return 0;
}

}  // extern "C"
