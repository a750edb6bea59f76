// Multipart form bodies: reads the body from the request stream into the
// pure parser (multipart_parser.h) and turns its events into form entries,
// temporary files and writes into the caller's upload sink.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "cgic.h"
#include "qm_config.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "request/multipart_parser.h"
#include "request/request_internal.h"

namespace cgissi::request {
namespace {

// Bytes asked of the request stream at a time.
constexpr std::size_t kUploadReadSize = 64 * 1024;
// File content is written to its sink in pieces of about this size.
constexpr std::size_t kSinkWriteSize = 64 * 1024;

// Writes all bytes to a descriptor; a slow reader (the flasher) throttles
// the upload by keeping its pipe full, which blocks the write or, for a
// non-blocking sink, is waited out with poll. False on any failure (a
// reader that went away gives EPIPE once SIGPIPE is handled).
bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        if (written == 0 || errno != EAGAIN) return false;
        pollfd ready{fd, POLLOUT, 0};
        if (::poll(&ready, 1, -1) < 0 && errno != EINTR) {
            QM_LOG_print("select error %s", std::strerror(errno));
            return false;
        }
    }
    return true;
}

// Builds the form list as the parser reports parts. Entries are pushed at
// the head of cgiFormEntryFirst at once, so whatever happens later,
// cgiFreeResources frees them and unlinks their temporary files.
class FormBuilder final : public MultipartEvents {
public:
    explicit FormBuilder(FCGI_FILE *upload_sink) : upload_sink_(upload_sink) {}

    int begin_part(PartKind kind, std::string_view name, std::string_view filename) override {
        current_ = push_entry(name);
        if (current_ == nullptr) return kMultipartIoError;
        if (kind == PartKind::field) return 0;
        if (!filename.empty() && (current_->fileName = copy_text(filename).release()) == nullptr)
            return kMultipartIoError;
        if (upload_sink_ != nullptr) {
            if (FCGI_fflush(upload_sink_) != 0) return kMultipartIoError;
            sink_fd_ = FCGI_fileno(upload_sink_);
            return sink_fd_ >= 0 ? 0 : kMultipartIoError;
        }
        return open_temporary();
    }

    int content(PartKind kind, std::string_view bytes) override {
        if (kind == PartKind::field) return append_value(bytes.data(), bytes.size());
        staged_.append(bytes);
        return staged_.size() >= kSinkWriteSize ? flush_file() : 0;
    }

    int end_part(PartKind kind, bool empty) override {
        int result = 0;
        // compat: an empty field reads "" with valueLength 1, as pages saw it.
        if (kind == PartKind::field && empty) result = append_value("", 1);
        if (kind == PartKind::file) {
            result = flush_file();
            temporary_.reset();
        }
        current_ = nullptr;
        return result;
    }

    void log(std::string_view message) override {
        QM_LOG_print("%.*s", static_cast<int>(message.size()), message.data());
    }

private:
    cgiFormEntry *push_entry(std::string_view name) {
        auto *entry = static_cast<cgiFormEntry *>(std::calloc(1, sizeof(cgiFormEntry)));
        if (entry == nullptr) return nullptr;
        entry->next = cgiFormEntryFirst;
        cgiFormEntryFirst = entry;
        if (!name.empty() && (entry->attr = copy_text(name).release()) == nullptr) return nullptr;
        if (entry->attr == nullptr && (entry->attr = copy_text("").release()) == nullptr) return nullptr;
        return entry;
    }

    int open_temporary() {
        char path[CGIC_TEMP_NAME_SIZE];
        if (getTempFileName(path, sizeof path) != 0) {
            QM_LOG_print("Error with getTempFileName() !!!\n");
            return kMultipartIoError;
        }
        if ((current_->tfileName = copy_text(path).release()) == nullptr) {
            ::unlink(path);
            return kMultipartIoError;
        }
        temporary_.reset(::open(path, O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW));
        sink_fd_ = temporary_.get();
        return temporary_ ? 0 : kMultipartIoError;
    }

    // Writes what is staged; valueLength counts the bytes the sink took.
    int flush_file() {
        if (staged_.empty()) return 0;
        if (!write_all(sink_fd_, staged_)) {
            QM_LOG_print("fread returns");
            return kMultipartIoError;
        }
        current_->valueLength += static_cast<int>(staged_.size());
        staged_.clear();
        return 0;
    }

    int append_value(const char *bytes, std::size_t length) {
        const std::size_t old_length = static_cast<std::size_t>(current_->valueLength);
        auto *grown = static_cast<char *>(std::realloc(current_->value, old_length + length + 1));
        if (grown == nullptr) return kMultipartIoError;
        std::memcpy(grown + old_length, bytes, length);
        grown[old_length + length] = '\0';
        current_->value = grown;
        current_->valueLength = static_cast<int>(old_length + length);
        return 0;
    }

    FCGI_FILE *upload_sink_;
    cgiFormEntry *current_ = nullptr;
    quelm::UniqueFd temporary_;
    int sink_fd_ = -1;
    // File content on its way to the sink: a pipe's worth per write, so the
    // flasher is woken per 64 KiB rather than per 4 KiB buffer.
    std::string staged_;
};

}  // namespace
}  // namespace cgissi::request

using namespace cgissi::request;

extern "C" int cgiParsePostMultipartInput(FCGI_FILE *upload_sink) {
    // Out of memory in the middle of a body reads as an I/O failure.
    return quelm::guarded(kMultipartIoError, __func__, [&]() -> int {
        if (cgiContentLength <= 0) {
            QM_LOG_print("Error on upload : stream_length is null\n");
            return kMultipartSuccess;
        }
        FormBuilder form(upload_sink);
        MultipartParser parser(cgiMultipartBoundary, form);
        // Reads may be larger than the parser's buffer: it takes any chunk size.
        char chunk[kUploadReadSize];
        int left = cgiContentLength;
        int result = kMultipartPending;
        while (left > 0 && result == kMultipartPending) {
            const std::size_t want = std::min(sizeof chunk, static_cast<std::size_t>(left));
            const std::size_t got = read_input(cgiIn, chunk, want);
            if (got == 0) {
                // A short body: the client went away or sent less than it said.
                QM_LOG_print("Error : io read error");
                return kMultipartIoError;
            }
            if (got_sigpipe) return kMultipartStopped;
            left -= static_cast<int>(got);
            result = parser.feed(std::string_view(chunk, got));
        }
        if (result == kMultipartPending) result = parser.finish();
        // The rest of a body the parse did not need keeps the connection in step.
        if (left > 0) flushinput(left);
        return result;
    });
}
