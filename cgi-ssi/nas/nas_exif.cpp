// A picture's EXIF data as one line of "name":"value" pairs.
#include <libexif/exif-data.h>

#include "cgi_output.h"
#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_nas.h"
#include "quelm_owned.h"

namespace cgissi::nas {
namespace {

constexpr std::size_t kValueSize = 1024;

using ExifOwned = std::unique_ptr<ExifData, quelm::CDeleter<exif_data_unref>>;

void print_entry(ExifEntry *entry, void *) {
    char value[kValueSize] = "";
    exif_entry_get_value(entry, value, sizeof value);
    const char *name = exif_tag_get_name_in_ifd(entry->tag, exif_entry_get_ifd(entry));
    // compat: pages read this as written, the separator after every entry.
    cgi_out_printf("\"%s\":\"%s\", ", name != nullptr ? name : "", value);
}

void print_content(ExifContent *content, void *) { exif_content_foreach_entry(content, print_entry, nullptr); }

}  // namespace

void send_exif() {
    if (check_extern_access(NAS_KIND_PICTURES) == 0) return refuse_access();
    const auto fields = required_fields<2>({"disk", "file"});
    if (!fields) return;
    const auto &[disk, file] = *fields;
    const std::optional<std::string> path = exact_path(disk, file);
    if (!path) return;
    ExifOwned data(exif_data_new_from_file(path->c_str()));
    if (!data) {
        NAS_LOG("No EXIF data in %s", path->c_str());
        fail(404, "Not found", kErrNotFound);
        return;
    }
    cgiHeaderContentType("text/plain");
    cgi_out_printf("{");
    exif_data_foreach_content(data.get(), print_content, nullptr);
    cgi_out_printf("}\n");
}

}  // namespace cgissi::nas
