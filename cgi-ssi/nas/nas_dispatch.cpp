// "nas.cgi": prepares the upload target, then runs the operation the first
// known request field names.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "nas/nas_internal.h"
#include "qm_cgi_state.h"
#include "qm_nas.h"
#include "qm_session.h"
#include "quelm_guard.h"
#include "quelm_owned.h"

namespace cgissi::nas {
namespace {

constexpr std::size_t kPathInfoValueSize = 128;
constexpr int kUploadMode = 0644;

// The operations by request field, in the order they are looked for.
struct Operation {
    const char *field;
    void (*run)(const char *path_info, const std::string &temporary);
};

const Operation kOperations[] = {
    {"iNasGetExif", [](const char *, const std::string &) { send_exif(); }},
    {"iNasGetPlaylist", [](const char *, const std::string &) { playlist_xml(); }},
    {"iNasPlayPlaylist", [](const char *, const std::string &) { playlist_m3u(false); }},
    {"iNasPlayPlaylistPI", [](const char *, const std::string &) { playlist_m3u(true); }},
    {"iNasAddPlaylist", [](const char *, const std::string &) { playlist_add(); }},
    {"iNasRenamePlaylist", [](const char *, const std::string &) { playlist_rename(); }},
    {"iNasDeletePlaylist", [](const char *, const std::string &) { playlist_delete(); }},
    {"iNasMoveUpPlaylistItem", [](const char *, const std::string &) { playlist_move(-1); }},
    {"iNasMoveDownPlaylistItem", [](const char *, const std::string &) { playlist_move(1); }},
    {"iNasDeletePlaylistItem", [](const char *, const std::string &) { playlist_move(0); }},
    {"iNasAddPlaylistItem", [](const char *, const std::string &) { playlist_add_item(); }},
    {"iNasGetMusicContent", [](const char *, const std::string &) { send_folder(true); }},
    {"iNasGetFolderContent", [](const char *, const std::string &) { send_folder(false); }},
    {"iNasGetSong", [](const char *, const std::string &) { send_file("inline", "audio/mpeg", false); }},
    {"iNasGetFile",
     [](const char *path_info, const std::string &) {
         if (*path_info != '\0') {
             send_pathinfo(path_info, "attachment", "application/octet-stream", false);
         } else {
             send_file("attachment", "application/octet-stream", false);
         }
     }},
    {"iNasGetThumb",
     [](const char *, const std::string &) { send_file("attachment", "application/octet-stream", true); }},
    {"iNasAddFile", [](const char *, const std::string &temporary) { add_file(temporary); }},
    {"iNasRenameFile", [](const char *, const std::string &) { rename_file(); }},
    {"iNasDeleteFile", [](const char *, const std::string &) { delete_file(); }},
    {"iNasAddThumb", [](const char *, const std::string &) { add_thumb(); }},
};

// The upload's temporary file in the disk root, opened for the request
// layer; empty when this request uploads nothing or the file cannot be made.
std::string upload_target(const char *path_info, quelm::UniqueFd &file) {
    char flag[kPathInfoValueSize] = "";
    char disk[kDiskSize] = "";
    if (pathinfo_get_parm(path_info, "upload", flag, sizeof flag, 0) != 0 || std::string_view(flag) != "1") return {};
    if (pathinfo_get_parm(path_info, "disk", disk, sizeof disk, 0) != 0 || disk[0] == '\0') return {};
    if (check_extern_access(NAS_KIND_DISK) == 0) return {};
    const std::optional<std::string> root = disk_root(disk);
    if (!root) {
        NAS_LOG("Something is wrong with realpath : %s / %s", kMountDir, disk);
        return {};
    }
    std::string path = *root + "/~" + std::to_string(static_cast<long>(std::time(nullptr))) + "." +
                       std::to_string(static_cast<long>(::getpid()));
    file.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kUploadMode));
    if (!file) {
        NAS_LOG("Failed to open temporary file on %s", path.c_str());
        return {};
    }
    return path;
}

// Reads the request with the upload (if any) going into its temporary
// file; false when the request layer refused it.
bool read_request(const std::string &temporary, quelm::UniqueFd &file) {
    FCGI_FILE *sink = file ? FCGI_fdopen(file.get(), "w") : nullptr;
    if (sink != nullptr) file.release();
    const int result = cgiInitResources(sink);
    if (sink != nullptr) FCGI_fclose(sink);
    if (result == 0) return true;
    if (!temporary.empty()) {
        NAS_LOG("while uploading a file, error has occured");  // compat: the log's own spelling
        ::unlink(temporary.c_str());
    }
    generic_error("nas.cgi");
    return false;
}

void dispatch(const char *path_info, const std::string &temporary) {
    set_cgierror(QM_err_set(0));
    for (const Operation &operation : kOperations) {
        int value = 0;
        if (cgiFormInteger(operation.field, &value, 0) == cgiFormNotFound) continue;
        if (value == 1) operation.run(path_info, temporary);
        return;
    }
    send_pathinfo(path_info, "inline", "audio/mpeg", true);
}

void serve() {
    const char *env = std::getenv("PATH_INFO");
    const std::string path_info = env != nullptr ? env : "";
    get_server_type();
    quelm::UniqueFd file;
    const std::string temporary = upload_target(path_info.c_str(), file);
    QM_err_set(0);
    if (read_request(temporary, file)) {
        dispatch(path_info.c_str(), temporary);
        cgiFreeResources();
    }
    // An upload that no operation stored does not stay on the disk.
    if (!temporary.empty()) ::unlink(temporary.c_str());
    cgi_out_flush();
}

}  // namespace

std::optional<std::string> form_text(const char *name, std::size_t size, bool allow_empty) {
    std::string value(size, '\0');
    const cgiFormResultType result = cgiFormStringNoNewlines(name, value.data(), static_cast<int>(size));
    if (result == cgiFormEmpty && allow_empty) return std::string();
    if (result != cgiFormSuccess && result != cgiFormTruncated) return std::nullopt;
    value.resize(std::strlen(value.c_str()));
    return value;
}

std::optional<std::string> form_field(std::string_view name) {
    if (name == "disk") return form_text("disk", kDiskSize);
    if (name == "path") return form_text("path", kPathMax, true);
    if (name == "data") return form_text("data", kThumbDataSize);
    if (name == "name" || name == "newname" || name == "song") return form_text(std::string(name).c_str(), kNameSize);
    return form_text(std::string(name).c_str(), kPathMax);
}

void fail(int code, const char *message, int error) {
    cgiHeaderStatus(code, message);
    QM_err_set(error);
}

void missing(const char *name) {
    NAS_LOG("Missing parameters %s", name);
    fail(400, "Bad request", kErrMissing);
}

void reply_ok_page() {
    cgi_out_printf("Status: 200 OK\r\n");
    cgiHeaderContentType("text/html");
    cgi_out_printf("<HTML>\n<HEAD>\n<TITLE>OK</TITLE>\n</HEAD>\n<BODY>OK</BODY>\n</HTML>\n");
}

}  // namespace cgissi::nas

extern "C" int nas_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] {
        cgissi::nas::serve();
        return 0;
    });
}
