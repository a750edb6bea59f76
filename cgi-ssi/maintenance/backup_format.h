// The backup file "router.bin" as the product frames it: a five-byte
// header and the archive, scrambled; on import, the header test and the
// line-end translation. Pure, no I/O.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "maintenance/scrambler.h"

namespace cgissi::maintenance {

constexpr std::size_t kBackupHeaderSize = 5;
// Bytes of the header that an import compares.
constexpr std::size_t kBackupHeaderChecked = 4;
// Block size in which backups are read, scrambled and written.
constexpr std::size_t kBackupBlockSize = 1000;

// The header template FF FF AA AA AA. compat: every export scrambles its
// last three bytes in place, so the template of a process changes with each
// export and an import is checked against the current state.
std::array<unsigned char, kBackupHeaderSize> &backup_header_template();

// Scrambles the template's last three bytes in place with the export's
// scrambler (which goes on with the archive) and returns the header to send.
std::array<unsigned char, kBackupHeaderSize> start_scramble(Scrambler &scrambler);

// Turns the uploaded file back into the archive, block by block: header
// test on the first block, unscrambling when it carried the header, then
// the line-end translation (a CR becomes LF, an LF right after a CR is
// dropped, across blocks too). compat: the translation applies to the
// unscrambled archive as well, as the product always did.
class ImportDecoder {
public:
    // Appends the archive bytes of one uploaded block to out.
    void decode(unsigned char *block, std::size_t length, std::string &out);
    bool binary() const { return binary_; }

private:
    Scrambler unscrambler_{ScrambleDirection::unscramble, kImportSeed};
    bool first_ = true;
    bool binary_ = false;
    bool after_cr_ = false;
};

}  // namespace cgissi::maintenance
