#include "maintenance/backup_format.h"

#include <cstring>

namespace cgissi::maintenance {

std::array<unsigned char, kBackupHeaderSize> &backup_header_template() {
    static std::array<unsigned char, kBackupHeaderSize> header{0xFF, 0xFF, 0xAA, 0xAA, 0xAA};
    return header;
}

std::array<unsigned char, kBackupHeaderSize> start_scramble(Scrambler &scrambler) {
    auto &header = backup_header_template();
    constexpr std::size_t kPlainBytes = 2;  // FF FF stay readable
    scrambler.apply(header.data() + kPlainBytes, header.size() - kPlainBytes);
    return header;
}

void ImportDecoder::decode(unsigned char *block, std::size_t length, std::string &out) {
    std::size_t skip = 0;
    if (first_) {
        first_ = false;
        binary_ = length >= kBackupHeaderSize &&
                  std::memcmp(block, backup_header_template().data(), kBackupHeaderChecked) == 0;
        if (binary_) skip = kBackupHeaderSize;
    }
    // The header goes through the unscrambler too, then is skipped.
    if (binary_) unscrambler_.apply(block, length);
    for (std::size_t i = skip; i < length; ++i) {
        const char byte = static_cast<char>(block[i]);
        if (byte == '\n' && after_cr_) {
            after_cr_ = false;
            continue;
        }
        after_cr_ = byte == '\r';
        out.push_back(after_cr_ ? '\n' : byte);
    }
}

}  // namespace cgissi::maintenance
