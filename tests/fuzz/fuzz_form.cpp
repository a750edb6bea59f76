// Urlencoded form parsing (query strings and POST bodies) and the form
// accessors that pages and plugins read the fields with.
#include <cstring>
#include <string>
#include <vector>

#include "cgic.h"
#include "fuzz_support.h"

namespace {

// Accessor result buffers are this small so that truncation is common.
constexpr int kResultSize = 16;
// Fields whose names are looked up through every accessor.
constexpr int kNamesLookedUp = 8;

void read_through_accessors(const char *name) {
    char result[kResultSize];
    std::memset(result, 'x', sizeof result);
    cgiFormString(name, result, sizeof result);
    fuzz::require(std::memchr(result, '\0', sizeof result) != nullptr, "cgiFormString left its result unterminated");
    cgiFormStringNoNewlines(name, result, sizeof result);
    fuzz::require(std::strpbrk(result, "\r\n") == nullptr, "cgiFormStringNoNewlines kept a line break");
    int needed = 0;
    if (cgiFormStringSpaceNeeded(name, &needed) == cgiFormSuccess)
        fuzz::require(needed >= 1, "cgiFormStringSpaceNeeded below one byte");
    // As the classic interface does, a name without values gets an empty
    // array, which the caller frees too.
    char **all = nullptr;
    cgiFormStringMultiple(name, &all);
    cgiStringArrayFree(all);
    int number = 0;
    cgiFormIntegerBounded(name, &number, -5, 5, 0);
    fuzz::require(number >= -5 && number <= 5, "cgiFormIntegerBounded out of its bounds");
    double real = 0;
    cgiFormDoubleBounded(name, &real, -1.0, 1.0, 0.0);
    static const char *const kChoices[] = {"on", "1", "yes"};
    int choice = -1;
    cgiFormSelectSingle(name, kChoices, 3, &choice, 0);
    fuzz::require(choice >= 0 && choice < 3, "cgiFormSelectSingle chose outside its choices");
    int checked[3] = {};
    int invalid = 0;
    cgiFormCheckboxMultiple(name, kChoices, 3, checked, &invalid);
    cgiFormCheckboxSingle(name);
    cgiFormFileName(name, result, sizeof result);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    cgiSetupConstants();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0 || size > 1 << 16) return 0;
    const std::string body(fuzz::text_of(data, size));
    fuzz::require(cgiParseFormInput(body.data(), static_cast<int>(body.size())) == 0, "urlencoded parse failed");

    std::vector<const char *> names;
    for (const cgiFormEntry *e = getFormEntries(); e != nullptr; e = e->next) {
        fuzz::require(e->attr != nullptr && e->value != nullptr, "a field without name or value");
        fuzz::require(e->valueLength == static_cast<int>(std::strlen(e->value)), "valueLength is not strlen(value)");
        fuzz::require(std::strlen(e->value) <= body.size(), "a value longer than the body");
        if (names.size() < kNamesLookedUp) names.push_back(e->attr);
    }
    for (const char *name : names) read_through_accessors(name);
    read_through_accessors("");
    char **entries = nullptr;
    if (cgiFormEntries(&entries) == cgiFormSuccess) cgiStringArrayFree(entries);
    cgiFreeResources();
    return 0;
}
