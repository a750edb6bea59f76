#include "request/variables.h"

#include "cgic.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

extern char **environ;

namespace cgissi::request {
namespace {

// In the order of Variable.
constexpr std::string_view kNames[] = {
    "SERVER_SOFTWARE", "SERVER_NAME",   "GATEWAY_INTERFACE", "SERVER_PROTOCOL", "SERVER_PORT",
    "REQUEST_METHOD",  "PATH_INFO",     "PATH_TRANSLATED",   "SCRIPT_NAME",     "QUERY_STRING",
    "REMOTE_HOST",     "REMOTE_ADDR",   "AUTH_TYPE",         "REMOTE_USER",     "REMOTE_IDENT",
    "HTTP_HOST",       "X_FORWARDED_FOR", "HTTP_ACCEPT",     "HTTP_USER_AGENT", "HTTP_REFERER",
    "HTTP_COOKIE",     "CONTENT_TYPE",  "FCGI_ROLE",         "CONTENT_LENGTH",  "FCGI_DATA_LENGTH",
    "SCRIPT_FILENAME", "QUELM_REALM",   "QUELM_SRV_IDX",     "HTTP_ORIGIN",     "HTTP_ACCEPT_LANGUAGE",
    "DOCUMENT_ROOT",   "REMOTE_PORT",   "REQUEST_URI",       "SERVER_ADDR",     "HTTPS",
    "TZ",
};
static_assert(std::size(kNames) == kVariables);
static_assert(kVariables <= 64);
constexpr std::size_t kLongestName = 32;

// A table of the names by a hash that sends each of them to a slot of its
// own, checked at compile time: an environment entry is compared with the
// one name in its slot, if any.
constexpr std::size_t kSlots = 128;
constexpr std::size_t slot_of(const char *name, std::size_t length) {  // length >= 2
    const auto byte = [&](std::size_t at) { return static_cast<std::size_t>(static_cast<unsigned char>(name[at])); };
    return (length + byte(0) + byte(length / 2) * 31 + byte(length - 2) * 11) % kSlots;
}
constexpr auto kSlotNames = [] {
    std::array<std::uint8_t, kSlots> slots{};  // index of the name + 1; 0: empty
    for (std::size_t i = 0; i < kVariables; ++i) {
        const std::size_t at = slot_of(kNames[i].data(), kNames[i].size());
        if (slots[at] != 0) throw "two names share a slot: change the hash";
        slots[at] = static_cast<std::uint8_t>(i + 1);
    }
    return slots;
}();
constexpr std::size_t kShortestName = 2;

// The name in an entry's slot, or kVariables when none has that slot.
std::size_t name_at(const char *name, std::size_t length) {
    if (length < kShortestName || length > kLongestName) return kVariables;
    const std::size_t i = kSlotNames[slot_of(name, length)];
    return i == 0 ? kVariables : i - 1U;
}

// Whether the first `length` bytes of a and b are equal, read eight at a
// time: both hold at least that many.
bool same_name(const char *a, const char *b, std::size_t length) {
    if (length < 8) return std::memcmp(a, b, length) == 0;
    const auto chunk = [](const char *at) {
        std::uint64_t value;
        std::memcpy(&value, at, sizeof value);
        return value;
    };
    std::size_t at = 0;
    for (; at + 8 < length; at += 8) {
        if (chunk(a + at) != chunk(b + at)) return false;
    }
    return chunk(a + length - 8) == chunk(b + length - 8);
}

// What one pass found, and enough of the environment to tell that it is
// still the same array with the same entries: its address, its first and
// last entries and its length, and for every variable found the entry it
// was found in. setenv and putenv of a name already there replace that
// name's entry; of a new name they make the array longer or move it;
// unsetenv shifts the entries after the one it removes, the last among
// them. The strings stay allocated while the request lasts (setenv never
// frees its own, libfcgi frees the parameters with the request, and the
// request loop forgets the table then), so no other entry takes their
// addresses; an array at the same address that starts with the same entry
// is the same allocation (shortened at most), and the indexes read stay
// within it. Not seen: a caller that frees a string it put in the
// environment and puts another at the same address, or rewrites an
// entry's name in place; nothing here or in a plugin has a reason to.
struct Taken {
    bool valid = false;
    char **array = nullptr;
    std::size_t length = 0;
    const char *first = nullptr;
    const char *last = nullptr;
    std::array<const char *, kVariables> values{};   // after the "="; null: unset
    std::array<std::uint32_t, kVariables> index_of{};
    std::array<const char *, kVariables> entry_of{};

    bool same_array() const {
        if (!valid || environ != array) return false;
        if (array == nullptr) return true;
        if (array[0] != first) return false;
        return length == 0 || (array[length] == nullptr && array[length - 1] == last);
    }

    // Whether the variable's answer still stands, the array being the same.
    bool same_entry(std::size_t i) const {
        if (values[i] == nullptr) return true;  // no name was added
        return array[index_of[i]] == entry_of[i];
    }

    void take() {
        values.fill(nullptr);
        valid = true;
        array = environ;
        length = 0;
        first = last = nullptr;
        if (array == nullptr) return;
        std::uint64_t found = 0;
        for (char **entry = array; *entry != nullptr; ++entry, ++length) {
            const char *text = *entry;
            const char *equals = std::strchr(text, '=');
            if (equals == nullptr) continue;
            const auto name_length = static_cast<std::size_t>(equals - text);
            const std::size_t i = name_at(text, name_length);
            if (i == kVariables || kNames[i].size() != name_length || !same_name(kNames[i].data(), text, name_length))
                continue;
            // getenv answers the first entry of a name.
            if ((found & (std::uint64_t{1} << i)) == 0) {
                found |= std::uint64_t{1} << i;
                values[i] = text + name_length + 1;
                entry_of[i] = text;
                index_of[i] = static_cast<std::uint32_t>(length);
            }
        }
        first = array[0];
        if (length > 0) last = array[length - 1];
    }
};

// Per thread: another thread's lookups never use this one's pass.
thread_local Taken taken;

}  // namespace

const char *variable(Variable which) {
    const auto i = static_cast<std::size_t>(which);
    if (!taken.same_array() || !taken.same_entry(i)) taken.take();
    return taken.values[i];
}

const char *const *variables() {
    bool same = taken.same_array();
    for (std::size_t i = 0; same && i < kVariables; ++i) same = taken.same_entry(i);
    if (!same) taken.take();
    return taken.values.data();
}

void forget_variables() { taken.valid = false; }

}  // namespace cgissi::request

using namespace cgissi::request;

extern "C" const char *cgiRequestVariable(const char *name) {
    if (name == nullptr) return nullptr;
    const std::size_t length = std::strlen(name);
    const std::size_t i = name_at(name, length);
    if (i != kVariables && kNames[i].size() == length && same_name(kNames[i].data(), name, length)) {
        return variable(static_cast<Variable>(i));
    }
    return std::getenv(name);
}
