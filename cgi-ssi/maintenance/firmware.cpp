// "firmware.cgi", "firmupgd.cgi", "reboot.cgi" and the progress symbol.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_maintenance.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_pipe_child.h"
#include "quelm_root.h"
#include "request/request_internal.h"
#include "ssi_buffer.h"

namespace cgissi::maintenance {
namespace {

constexpr const char *kFlasher = "/usr/bin/fwburn";
constexpr const char *kProgressFile = "/var/tmp/fprogress";
// Bytes of the progress file that are read.
constexpr std::size_t kProgressSize = 128;
constexpr int kProgressUnreadable = -128;
constexpr int kProgressMissing = -129;
// A failed flash reports a negative progress, shown this much lower.
constexpr int kNegativeProgressShift = 130;
constexpr int kFactoryOption = 2;
constexpr int kNoRebootOption = -1;

// Set by the handler, logged once the write that met it has failed: a
// signal handler must not log.
volatile sig_atomic_t sigpipe_seen = 0;

void sig_hdl(int signal) { sigpipe_seen = signal; }

// The upload, streamed by the multipart parser into the flasher's input.
// Returns nothing to say: the answer is the same whatever the flasher did,
// its outcome goes to the progress file that the page polls.
void stream_into_flasher(quelm::PipeChild &flasher) {
    QM_LOG_print("Firmware upload : Start init on pid %d\n", static_cast<int>(getpid()));
    // The request layer takes a stream; it gets its own descriptor of the
    // pipe, closed with the stream, so that wait() below sees the last one go.
    quelm::UniqueFd copy(::fcntl(flasher.input(), F_DUPFD_CLOEXEC, 0));
    FCGI_FILE *sink = copy ? FCGI_fdopen(copy.get(), "w") : nullptr;
    if (sink != nullptr) copy.release();
    bool complete = false;
    if (sink == nullptr || cgiInitResources(sink) != 0) {
        QM_LOG_print("Firmware upload : Start init failed\n");
    } else {
        // A failed parse leaves the form empty: the image was cut short.
        complete = cgiFormEntryFirst != nullptr;
        set_cgierror(QM_err_set(0));
        // The product reads these and uses none of them.
        int ignored = 0;
        char error_page[QM_URL_PAGE_SIZE];
        cgiFormInteger("iExpert", &ignored, 0);
        cgiFormInteger("iNeedReboot", &ignored, 0);
        cgiFormString("sErrorPage", error_page, sizeof error_page);
        cgiFreeResources();
    }
    if (sink != nullptr) FCGI_fclose(sink);
    if (!complete) {
        // Never let a cut or refused upload end like a whole image.
        QM_LOG_print("Firmware upload : incomplete image, flasher stopped");
        flasher.signal(SIGTERM);
    }
    const int status = flasher.wait();
    if (sigpipe_seen != 0) QM_LOG_print("Received sigpipe %d", static_cast<int>(sigpipe_seen));
    if (status != 0) QM_LOG_print("Firmware upload : flasher ended with %d", status);
}

int serve_firmware() {
    sigpipe_seen = 0;
    quelm::ScopedSigpipe on_sigpipe(sig_hdl);
    if (cgiSecurePostVar("sFirmwareFile") != 0) {
        quelm::PipeChild flasher({quelm::root_path(kFlasher), "-f", quelm::root_path(kProgressFile), "-b", "-"});
        if (flasher.running()) {
            stream_into_flasher(flasher);
            // compat: the answer only ends the header block; pages poll the
            // progress instead of reading a body.
            cgi_out_printf("\r\n\r\n");
        }
    }
    QM_LOG_print("Firmware upload : End\n");
    return 0;
}

// Leading integer of the progress text, or the error code.
int read_progress(int *value) {
    quelm::UniqueFd file(::open(quelm::root_path(kProgressFile).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return kProgressMissing;
    char text[kProgressSize + 1];
    const ssize_t got = ::read(file.get(), text, kProgressSize);
    if (got < 0) {
        QM_LOG_print("Error on reading fprogress file");
        return kProgressUnreadable;
    }
    text[got] = '\0';
    if (!(text[0] == '-' || text[0] == '+' || (text[0] >= '0' && text[0] <= '9'))) return kProgressUnreadable;
    *value = cgissi::request::leading_int(text);
    return 0;
}

}  // namespace
}  // namespace cgissi::maintenance

using namespace cgissi::maintenance;

extern "C" int firmware_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] { return serve_firmware(); });
}

extern "C" int firmware_user_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] {
        int managed = -1;
        if (GetPropertyIntValue("Services_TR069", "UpgdManaged", &managed) == 0 && managed == 0)
            return serve_firmware();
        // Managed remotely (or unknown): the image is not taken.
        cgiInitResources(nullptr);
        int expert = 0;
        cgiFormInteger("iExpert", &expert, 0);
        set_dest_url("index.htm", expert);
        branch_dest_url();
        cgi_out_flush();
        return 0;
    });
}

extern "C" void SaveConfig(int option) {
    quelm::guarded(0, __func__, [&] {
        if (option == kFactoryOption) QM_FILE_factory(kFactoryOption);
        return 0;
    });
}

extern "C" int reboot_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] {
        int option = kNoRebootOption;
        int delay = 0;
        if (cgiInitResources(nullptr) == 0) {
            set_cgierror(QM_err_set(0));
            getset_success_url();
            delay = get_shelldelay();
            if (cgiFormInteger("iRebootOption", &option, kNoRebootOption) != cgiFormNotFound) SaveConfig(option);
            branch_dest_url();
            cgiFreeResources();
        } else {
            generic_error("reboot.cgi");
        }
        cgi_out_flush();
        if (option != kNoRebootOption) QM_SYS_reboot(delay);
        return 0;
    });
}

extern "C" int get_firmware_progression(void) {
    return quelm::guarded(kProgressUnreadable, __func__, [&] {
        QM_err_set(0);
        int value = 0;
        if (const int error = read_progress(&value); error != 0) QM_err_set(error);
        const long long shown = QM_err_get() != 0 ? QM_err_get() : value < 0 ? value - kNegativeProgressShift : value;
        std::snprintf(Ssi, sizeof Ssi, "%lld", shown);
        return QM_err_get();
    });
}
