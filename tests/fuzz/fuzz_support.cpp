#include "fuzz_support.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#define NO_FCGI_DEFINES
#include <fcgi_stdio.h>

#include "platform.h"
#include "qm_config.h"

namespace fuzz {
namespace {

std::string made_root;

void remove_root() {
    QM_Cfg_Free();
    std::error_code ignored;
    std::filesystem::remove_all(made_root, ignored);
}

}  // namespace

void quiet_process() {
    // Only emergencies would reach the system log; the product logs none.
    ::setlogmask(LOG_MASK(LOG_EMERG));
    ::unsetenv("QUELM_LOG_FILE");
    // Outside a web server the first accept wraps stdin and stdout.
    if (FCGI_stdout->stdio_stream == nullptr && FCGI_stdout->fcgx_stream == nullptr) FCGI_Accept();
}

const std::string &gateway_root() {
    if (!made_root.empty()) return made_root;
    // In memory where there is a tmpfs: the registry target writes a file
    // per input.
    char in_memory[] = "/dev/shm/fuzz_root.XXXXXX";
    char on_disk[] = "/tmp/fuzz_root.XXXXXX";
    char *dir = ::mkdtemp(in_memory);
    if (dir == nullptr) dir = ::mkdtemp(on_disk);
    if (dir == nullptr) fail("cannot make the gateway root");
    made_root = dir;
    ::setenv("QUELM_ROOT", dir, 1);
    std::string message;
    if (quelm::platform::init_root(message) != 0) fail(message.c_str());
    if (QM_Cfg_Init(1) != 0) fail("QM_Cfg_Init failed on the fresh root");
    std::atexit(remove_root);
    return made_root;
}

std::string captured(const std::function<void()> &write) {
    char *bytes = nullptr;
    std::size_t length = 0;
    std::FILE *memory = ::open_memstream(&bytes, &length);
    if (memory == nullptr) fail("open_memstream failed");
    std::FILE *saved = FCGI_stdout->stdio_stream;
    FCGI_stdout->stdio_stream = memory;
    write();
    FCGI_fflush(FCGI_stdout);
    FCGI_stdout->stdio_stream = saved;
    std::fclose(memory);
    std::string out(bytes, length);
    std::free(bytes);
    return out;
}

// Every target links this file: the process is quiet before libFuzzer
// runs its first input.
[[maybe_unused]] const bool quiet = (quiet_process(), true);

void fail(const char *what) {
    std::fprintf(stderr, "fuzz property broken: %s\n", what);
    std::abort();
}

std::string_view take_until(std::string_view &input, char separator) {
    const std::size_t at = input.find(separator);
    std::string_view piece = input.substr(0, at);
    input.remove_prefix(at == std::string_view::npos ? input.size() : at + 1);
    return piece;
}

}  // namespace fuzz
