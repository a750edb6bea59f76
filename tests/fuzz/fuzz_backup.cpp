// The backup file's import side: the header test, the unscrambler and the
// line-end translation, block by block as an upload arrives. The archive
// must not depend on how the upload was cut, and an exported backup must
// import back to its archive.
//
// Input: the uploaded file (first byte also seeds the block sizes).
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "maintenance/backup_format.h"

namespace {

using namespace cgissi::maintenance;

std::string decode_in_blocks(std::string_view upload, unsigned seed) {
    ImportDecoder decoder;
    std::string out;
    std::vector<unsigned char> block;
    unsigned state = seed * 2654435761u + 7;
    bool first = true;
    while (!upload.empty()) {
        state = state * 1103515245u + 12345u;
        // The first block is a whole one (the header test reads it), the
        // rest from 1 byte up.
        std::size_t take = seed == 0 || first ? kBackupBlockSize : 1 + (state >> 16) % (2 * kBackupBlockSize);
        take = std::min(take, upload.size());
        first = false;
        block.assign(upload.begin(), upload.begin() + static_cast<std::ptrdiff_t>(take));
        decoder.decode(block.data(), block.size(), out);
        upload.remove_prefix(take);
    }
    return out;
}

// An archive without CR (the exports' own: the line-end translation is
// checked above) imports back byte for byte.
void round_trip(std::string_view text) {
    std::string archive(text);
    std::erase(archive, '\r');
    Scrambler scrambler(ScrambleDirection::scramble, kExportSeed);
    const auto header = start_scramble(scrambler);
    std::string exported(header.begin(), header.end());
    std::string body = archive;
    scrambler.apply(reinterpret_cast<unsigned char *>(body.data()), body.size());
    exported += body;
    fuzz::require(decode_in_blocks(exported, 0) == archive, "an export does not import back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1 || size > 1 << 15) return 0;
    const std::string_view upload = fuzz::text_of(data, size);
    const std::string whole = decode_in_blocks(upload, 0);
    fuzz::require(whole.find('\r') == std::string::npos, "a CR left in the archive");
    fuzz::require(whole.size() <= upload.size(), "the archive grew");
    fuzz::require(decode_in_blocks(upload, data[0] | 1u) == whole, "the archive depends on the block sizes");
    round_trip(upload.substr(1));
    return 0;
}
