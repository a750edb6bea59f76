// "export.cgi" and "import.cgi": the configuration backup "router.bin",
// made and applied by the platform's backup and restore scripts.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cgi_output.h"
#include "cgic.h"
#include "maintenance/backup_format.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_maintenance.h"
#include "quelm_child.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_root.h"
#include "ssi_buffer.h"

namespace cgissi::maintenance {
namespace {

constexpr const char *kWorkFile = "/var/tmp/config.tar";
constexpr const char *kBackupScript = "/etc/quelm/init.d/backup-config";
constexpr const char *kRestoreScript = "/etc/quelm/init.d/restore-config";
constexpr const char *kTar = "/bin/tar";
constexpr int kFileError = 20;
constexpr int kTextModeUnsupported = 22;
constexpr int kBackupFailed = 23;
// "sExportMode" is read into this many bytes.
constexpr int kExportModeSize = 32;
// The work file is the responder's own.
constexpr mode_t kWorkFileMode = 0600;

// Runs a platform script on the work file; its exit code.
int run_script(const char *script, const std::string &work_file) {
    return quelm::run_child({quelm::root_path(script), work_file}, nullptr).status;
}

// Removes the work file when the scope ends, on every path.
struct WorkFile {
    std::string path = quelm::root_path(kWorkFile);
    ~WorkFile() { ::unlink(path.c_str()); }
};

void export_archive() {
    WorkFile work;
    if (run_script(kBackupScript, work.path) != 0) {
        QM_err_set(kBackupFailed);
        return;
    }
    quelm::UniqueFd archive(::open(work.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!archive) {
        QM_err_set(kFileError);
        return;
    }
    cgi_out_printf("Content-disposition: attachment; filename=%s\r\n", "router.bin");
    cgiHeaderContentType("application/octet-stream");
    cgi_out_flush();
    Scrambler scrambler(ScrambleDirection::scramble, kExportSeed);
    const auto header = start_scramble(scrambler);
    cgi_out_write(header.data(), header.size());
    unsigned char block[kBackupBlockSize];
    ssize_t got;
    while ((got = ::read(archive.get(), block, sizeof block)) > 0) {
        scrambler.apply(block, static_cast<std::size_t>(got));
        cgi_out_write(block, static_cast<std::size_t>(got));
    }
}

// Writes the uploaded file back as the archive into the work file; the
// error code (0, 20, 22). The work file is left only on success.
int import_upload(cgiFilePtr upload, const std::string &work_path) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
    quelm::UniqueFd work(::open(work_path.c_str(), kFlags, kWorkFileMode));
    if (!work) return kFileError;
    ImportDecoder decoder;
    unsigned char block[kBackupBlockSize];
    std::string archive;
    int got = 0;
    int error = 0;
    auto *bytes = reinterpret_cast<char *>(block);
    while (error == 0 && cgiFormFileRead(upload, bytes, sizeof block, &got) == cgiFormSuccess) {
        archive.clear();
        decoder.decode(block, static_cast<std::size_t>(got), archive);
        const auto written = ::write(work.get(), archive.data(), archive.size());
        if (written != static_cast<ssize_t>(archive.size())) error = kFileError;
    }
    if (error == 0 && !decoder.binary()) error = kTextModeUnsupported;
    if (error != 0) ::unlink(work_path.c_str());
    return error;
}

// The restore, when an upload came; true when it succeeded.
bool import_config() {
    cgiFilePtr upload = nullptr;
    const cgiFormResultType opened = cgiFormFileOpen("sImportFile", &upload);
    if (opened == cgiFormNotFound) return false;
    if (opened != cgiFormSuccess) {
        QM_err_set(kFileError);
        return false;
    }
    WorkFile work;
    const int error = import_upload(upload, work.path);
    cgiFormFileClose(upload);
    if (error != 0) {
        QM_err_set(error);
        return false;
    }
    QM_err_set(run_script(kRestoreScript, work.path) == 0 ? 0 : kFileError);
    return QM_err_get() == 0;
}

void serve_export() {
    if (cgiInitResources(nullptr) != 0) {
        generic_error("export.cgi");
        return;
    }
    set_cgierror(QM_err_set(0));
    getset_success_url();
    char mode[kExportModeSize];
    if (cgiFormString("sExportMode", mode, sizeof mode) != cgiFormNotFound) {
        if (std::string_view(mode) == "text") {
            QM_err_set(kTextModeUnsupported);  // text backups are not supported
        } else {
            export_archive();
        }
    }
    if (const int code = QM_err_get(); code != 0) {
        getset_error_url();
        set_cgierror(code);
        branch_dest_url();
    }
    cgiFreeResources();
    cgi_out_flush();
}

void serve_import() {
    if (cgiInitResources(nullptr) != 0) {
        generic_error("import.cgi");
        return;
    }
    set_cgierror(QM_err_set(0));
    const int delay = get_shelldelay();
    const bool reboot = import_config();
    cgiHeaderContentType("text/html");
    if (const int code = QM_err_get(); code != 0) {
        cgi_out_printf("<script> window.top.window.onReceiveError(%d);</script>\r\n\r\n", code);
    } else {
        cgi_out_printf("<script> window.top.window.onReceiveSuccess();</script>\r\n\r\n");
    }
    cgiFreeResources();
    cgi_out_flush();
    if (reboot) QM_SYS_reboot(delay);
}

}  // namespace
}  // namespace cgissi::maintenance

using namespace cgissi::maintenance;

extern "C" int export_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] {
        serve_export();
        return 0;
    });
}

extern "C" int import_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] {
        serve_import();
        return 0;
    });
}

extern "C" int get_tar_support(void) {
    return quelm::guarded(0, __func__, [&] {
        QM_err_set(0);
        Ssi[0] = ::access(quelm::root_path(kTar).c_str(), F_OK) == 0 ? '1' : '0';
        Ssi[1] = '\0';
        return 0;
    });
}
