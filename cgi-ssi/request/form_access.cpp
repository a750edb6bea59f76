// Form accessors: lookup of fields by name and the typed readers built on it.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "cgic.h"
#include "qm_config.h"
#include "quelm_chars.h"
#include "quelm_guard.h"
#include "request/request_internal.h"

struct cgiFileStruct {
    std::FILE *in;
};

namespace cgissi::request {
namespace {

// Search state shared by cgiFormEntryFindFirst and cgiFormEntryFindNext.
const char *cgiFindTarget = nullptr;
cgiFormEntry *cgiFindPos = nullptr;

const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }


// Copies text into result (max bytes, terminated when max > 0); true when
// all of it fitted.
bool copy_bounded(const char *text, char *result, int max) {
    std::size_t length = std::strlen(text);
    if (max <= 0) return length == 0;
    std::size_t room = static_cast<std::size_t>(max) - 1;
    std::size_t n = length < room ? length : room;
    std::memcpy(result, text, n);
    result[n] = '\0';
    return n == length;
}

void clear_result(char *result, int max) {
    if (result != nullptr && max > 0) result[0] = '\0';
}

// The string copy behind cgiFormString and cgiFormStringNoNewlines. A run of
// CR and LF bytes becomes max(CRs, LFs) LFs, or nothing without newlines.
cgiFormResultType entry_string(const cgiFormEntry *entry, char *result, int max, bool newlines) {
    const char *value = text_or_empty(entry->value);
    if (max <= 0) return value[0] != '\0' ? cgiFormTruncated : cgiFormEmpty;
    const int room = max - 1;
    int length = 0;
    int crs = 0;
    int lfs = 0;
    bool truncated = false;
    for (const char *p = value;; ++p) {
        char c = *p;
        if (c == '\r') {
            ++crs;
            continue;
        }
        if (c == '\n') {
            ++lfs;
            continue;
        }
        if (crs != 0 || lfs != 0) {
            if (newlines) {
                for (int add = crs > lfs ? crs : lfs; add > 0; --add) {
                    if (length >= room) {
                        truncated = true;
                        break;
                    }
                    result[length++] = '\n';
                }
            }
            crs = 0;
            lfs = 0;
        }
        if (c == '\0') break;
        if (length >= room) {
            truncated = true;
            break;
        }
        result[length++] = c;
    }
    result[length] = '\0';
    if (truncated) return cgiFormTruncated;
    return length != 0 ? cgiFormSuccess : cgiFormEmpty;
}

// The value of name's first entry; null, with defaultV stored, when the
// form has no such entry.
template <typename T>
const char *value_or_default(const char *name, T *result, T defaultV) {
    const cgiFormEntry *entry = cgiFormEntryFindFirst(name);
    if (entry == nullptr) {
        *result = defaultV;
        return nullptr;
    }
    return text_or_empty(entry->value);
}

// Index of the first choice equal to value; -1 when none is.
int choice_index(const char *const *choices, int total, const char *value) {
    for (int i = 0; i < total; ++i) {
        if (choices[i] != nullptr && std::strcmp(choices[i], value) == 0) return i;
    }
    return -1;
}

// Reads a number in the manner shared by cgiFormInteger and cgiFormDouble.
template <typename T, typename Convert>
cgiFormResultType form_number(const char *name, T *result, T defaultV, bool allow_point, Convert convert) {
    const char *value = value_or_default(name, result, defaultV);
    if (value == nullptr) return cgiFormNotFound;
    if (value[0] == '\0') {
        *result = defaultV;
        return cgiFormEmpty;
    }
    int first = cgiFirstNonspaceChar(value);
    bool number_start = (first >= '0' && first <= '9') || first == '-' || first == '+' || (allow_point && first == '.');
    if (!number_start) {
        *result = defaultV;
        return cgiFormBadType;
    }
    *result = convert(value);
    return cgiFormSuccess;
}

template <typename T>
cgiFormResultType clamp(cgiFormResultType read, T *result, T min, T max) {
    if (read != cgiFormSuccess) return read;
    if (*result < min) {
        *result = min;
        return cgiFormConstrained;
    }
    if (*result > max) {
        *result = max;
        return cgiFormConstrained;
    }
    return cgiFormSuccess;
}

// Name's first entry; null, with the caller's buffer cleared, when the form
// has no such entry.
const cgiFormEntry *entry_or_cleared(const char *name, char *result, int max) {
    const cgiFormEntry *entry = cgiFormEntryFindFirst(name);
    if (entry == nullptr) clear_result(result, max);
    return entry;
}

cgiFormResultType file_text(const char *name, char *result, int max, char *cgiFormEntry::*field,
                            cgiFormResultType when_empty) {
    const cgiFormEntry *entry = entry_or_cleared(name, result, max);
    if (entry == nullptr) return cgiFormNotFound;
    const char *text = text_or_empty(entry->*field);
    if (!copy_bounded(text, result, max)) return cgiFormTruncated;
    return text[0] == '\0' ? when_empty : cgiFormSuccess;
}

bool has_temp_file(const cgiFormEntry *entry) { return entry->tfileName != nullptr && entry->tfileName[0] != '\0'; }

}  // namespace

cgiFormResultType string_array(const std::vector<std::string_view> &items, char ***out) {
    char **array = static_cast<char **>(std::calloc(items.size() + 1, sizeof(char *)));
    if (array == nullptr) {
        *out = nullptr;
        return cgiFormMemory;
    }
    for (std::size_t i = 0; i < items.size(); ++i) {
        array[i] = copy_text(items[i]).release();
        if (array[i] == nullptr) {
            cgiStringArrayFree(array);
            *out = nullptr;
            return cgiFormMemory;
        }
    }
    *out = array;
    return cgiFormSuccess;
}

void reset_search() {
    cgiFindTarget = nullptr;
    cgiFindPos = nullptr;
}

int leading_int(const char *text) {
    long long value = std::strtoll(text, nullptr, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace cgissi::request

using namespace cgissi::request;

// The C entry points here that do not run through quelm::guarded cannot
// throw: they allocate nothing, or only with malloc, whose failure is
// their error result.
extern "C" cgiFormEntry *cgiFormEntryFindFirst(const char *name) {
    cgiFindTarget = name;
    cgiFindPos = cgiFormEntryFirst;
    return cgiFormEntryFindNext();
}

extern "C" cgiFormEntry *cgiFormEntryFindNext(void) {
    if (cgiFindTarget == nullptr) return nullptr;
    while (cgiFindPos != nullptr) {
        cgiFormEntry *candidate = cgiFindPos;
        cgiFindPos = candidate->next;
        if (candidate->attr != nullptr && std::strcmp(candidate->attr, cgiFindTarget) == 0 &&
            cgiSecurePostVar(cgiFindTarget) != 0) {
            return candidate;
        }
    }
    return nullptr;
}

extern "C" cgiFormResultType cgiFormString(const char *name, char *result, int max) {
    const cgiFormEntry *entry = entry_or_cleared(name, result, max);
    return entry != nullptr ? entry_string(entry, result, max, true) : cgiFormNotFound;
}

extern "C" cgiFormResultType cgiFormStringNoNewlines(const char *name, char *result, int max) {
    const cgiFormEntry *entry = entry_or_cleared(name, result, max);
    if (entry == nullptr) {
        QM_LOG_print("name [%s] not found", text_or_empty(name));
        return cgiFormNotFound;
    }
    return entry_string(entry, result, max, false);
}

extern "C" cgiFormResultType cgiFormStringSpaceNeeded(const char *name, int *length) {
    const cgiFormEntry *entry = cgiFormEntryFindFirst(name);
    if (entry == nullptr) {
        *length = 1;
        return cgiFormNotFound;
    }
    *length = static_cast<int>(std::strlen(text_or_empty(entry->value))) + 1;
    return cgiFormSuccess;
}

extern "C" cgiFormResultType cgiFormStringMultiple(const char *name, char ***ptrToStringArray) {
    return quelm::guarded(cgiFormMemory, __func__, [&]() -> cgiFormResultType {
        *ptrToStringArray = nullptr;  // what a failure leaves
        // Each value through the same line-end handling as cgiFormString; the
        // result is never longer than the value.
        std::vector<std::string> values;
        for (const cgiFormEntry *e = cgiFormEntryFindFirst(name); e != nullptr; e = cgiFormEntryFindNext()) {
            std::string value(std::strlen(text_or_empty(e->value)) + 1, '\0');
            entry_string(e, value.data(), static_cast<int>(value.size()), true);
            value.resize(std::strlen(value.c_str()));
            values.push_back(std::move(value));
        }
        const std::vector<std::string_view> views(values.begin(), values.end());
        if (const cgiFormResultType made = string_array(views, ptrToStringArray); made != cgiFormSuccess) return made;
        return values.empty() ? cgiFormNotFound : cgiFormSuccess;
    });
}

extern "C" void cgiStringArrayFree(char **stringArray) {
    if (stringArray == nullptr) return;
    for (char **p = stringArray; *p != nullptr; ++p) std::free(*p);
    std::free(stringArray);
}

extern "C" cgiFormResultType cgiFormInteger(const char *name, int *result, int defaultV) {
    return form_number(name, result, defaultV, false, leading_int);
}

extern "C" cgiFormResultType cgiFormIntegerBounded(const char *name, int *result, int min, int max, int defaultV) {
    return clamp(cgiFormInteger(name, result, defaultV), result, min, max);
}

extern "C" cgiFormResultType cgiFormDouble(const char *name, double *result, double defaultV) {
    return form_number(name, result, defaultV, true, [](const char *text) { return std::strtod(text, nullptr); });
}

extern "C" cgiFormResultType cgiFormDoubleBounded(const char *name, double *result, double min, double max,
                                                  double defaultV) {
    return clamp(cgiFormDouble(name, result, defaultV), result, min, max);
}

extern "C" cgiFormResultType cgiFormSelectSingle(const char *name, const char *const *choicesText,
                                                 int choicesTotal, int *result, int defaultV) {
    const char *value = value_or_default(name, result, defaultV);
    if (value == nullptr) return cgiFormNotFound;
    const int choice = choice_index(choicesText, choicesTotal, value);
    *result = choice >= 0 ? choice : defaultV;
    return choice >= 0 ? cgiFormSuccess : cgiFormNoSuchChoice;
}

extern "C" cgiFormResultType cgiFormSelectMultiple(const char *name, const char *const *choicesText,
                                                   int choicesTotal, int *result, int *invalid) {
    for (int i = 0; i < choicesTotal; ++i) result[i] = 0;
    int hits = 0;
    int misses = 0;
    for (const cgiFormEntry *e = cgiFormEntryFindFirst(name); e != nullptr; e = cgiFormEntryFindNext()) {
        const int choice = choice_index(choicesText, choicesTotal, text_or_empty(e->value));
        if (choice >= 0) {
            result[choice] = 1;
            ++hits;
        } else {
            ++misses;
        }
    }
    if (invalid != nullptr) *invalid = misses;
    return hits != 0 ? cgiFormSuccess : cgiFormNotFound;
}

extern "C" cgiFormResultType cgiFormCheckboxSingle(const char *name) {
    return cgiFormEntryFindFirst(name) != nullptr ? cgiFormSuccess : cgiFormNotFound;
}

extern "C" cgiFormResultType cgiFormCheckboxMultiple(const char *name, const char *const *valuesText,
                                                     int valuesTotal, int *result, int *invalid) {
    return cgiFormSelectMultiple(name, valuesText, valuesTotal, result, invalid);
}

extern "C" cgiFormResultType cgiFormRadio(const char *name, const char *const *valuesText, int valuesTotal,
                                          int *result, int defaultV) {
    return cgiFormSelectSingle(name, valuesText, valuesTotal, result, defaultV);
}

extern "C" cgiFormResultType cgiFormFileName(const char *name, char *result, int max) {
    return file_text(name, result, max, &cgiFormEntry::fileName, cgiFormNoFileName);
}

extern "C" cgiFormResultType cgiFormFileContentType(const char *name, char *result, int max) {
    return file_text(name, result, max, &cgiFormEntry::contentType, cgiFormNoContentType);
}

extern "C" cgiFormResultType cgiFormTmpFileName(const char *name, char *result, int max) {
    return file_text(name, result, max, &cgiFormEntry::tfileName, cgiFormNoFileName);
}

extern "C" cgiFormResultType cgiFormFileSize(const char *name, int *sizeP) {
    const cgiFormEntry *entry = cgiFormEntryFindFirst(name);
    cgiFormResultType code = cgiFormSuccess;
    int size = 0;
    if (entry == nullptr) {
        code = cgiFormNotFound;
    } else if (!has_temp_file(entry)) {
        code = cgiFormNotAFile;
    } else {
        size = entry->valueLength;
    }
    if (sizeP != nullptr) *sizeP = size;
    return code;
}

extern "C" cgiFormResultType cgiFormFileOpen(const char *name, cgiFilePtr *cfpp) {
    *cfpp = nullptr;
    const cgiFormEntry *entry = cgiFormEntryFindFirst(name);
    if (entry == nullptr) return cgiFormNotFound;
    if (!has_temp_file(entry)) return cgiFormNotAFile;
    auto *file = new (std::nothrow) cgiFileStruct{nullptr};
    if (file == nullptr) return cgiFormMemory;
    file->in = std::fopen(entry->tfileName, "rbe");
    if (file->in == nullptr) {
        delete file;
        return cgiFormIO;
    }
    *cfpp = file;
    return cgiFormSuccess;
}

extern "C" cgiFormResultType cgiFormFileRead(cgiFilePtr cfp, char *buffer, int bufferSize, int *gotP) {
    if (cfp == nullptr) return cgiFormOpenFailed;
    std::size_t got = 0;
    if (bufferSize > 0) got = std::fread(buffer, 1, static_cast<std::size_t>(bufferSize), cfp->in);
    if (gotP != nullptr) *gotP = static_cast<int>(got);
    // End of file is reported as "empty", there is no separate code for it.
    return got == 0 ? cgiFormEmpty : cgiFormSuccess;
}

extern "C" cgiFormResultType cgiFormFileClose(cgiFilePtr cfp) {
    if (cfp == nullptr) return cgiFormOpenFailed;
    std::fclose(cfp->in);
    delete cfp;
    return cgiFormSuccess;
}

extern "C" cgiFormResultType cgiFormEntries(char ***ptrToStringArray) {
    return quelm::guarded(cgiFormMemory, __func__, [&]() -> cgiFormResultType {
        *ptrToStringArray = nullptr;  // what a failure leaves
        std::vector<std::string_view> names;
        std::unordered_set<std::string_view> seen;
        for (const cgiFormEntry *e = cgiFormEntryFirst; e != nullptr; e = e->next) {
            std::string_view name = text_or_empty(e->attr);
            if (seen.insert(name).second) names.push_back(name);
        }
        return string_array(names, ptrToStringArray);
    });
}

extern "C" int cgiStrEqNc(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return a == b ? 1 : 0;
    for (;; ++a, ++b) {
        const char ca = quelm::ascii_lower(*a);
        const char cb = quelm::ascii_lower(*b);
        if (ca != cb) return 0;
        if (ca == '\0') return 1;
    }
}

extern "C" int cgiStrBeginsNc(const char *s, const char *prefix) {
    if (s == nullptr || prefix == nullptr) return 0;
    for (; *prefix != '\0'; ++s, ++prefix) {
        if (quelm::ascii_lower(*s) != quelm::ascii_lower(*prefix)) return 0;
    }
    return 1;
}

extern "C" int cgiFirstNonspaceChar(const char *s) {
    if (s == nullptr) return 0;
    while (quelm::is_space_tab_cr_lf(*s)) ++s;
    return static_cast<unsigned char>(*s);
}
