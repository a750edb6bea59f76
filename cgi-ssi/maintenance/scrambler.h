// The backup file's scrambler: a self-synchronising stream scrambler with
// ciphertext feedback over a 23-bit shift register. Pure, no I/O.
//
// Per byte: key = ((register >> 5) ^ register) & 255, out = in ^ key, and
// the scrambled byte (the output when scrambling, the input when
// unscrambling) is shifted in at bit 15. After three bytes the register
// depends only on the scrambled stream, so the seed only changes the first
// three bytes processed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cgissi::maintenance {

constexpr std::uint32_t kExportSeed = 0x3A5C71;
constexpr std::uint32_t kImportSeed = 0x2B6D13;

enum class ScrambleDirection { scramble, unscramble };

class Scrambler {
public:
    Scrambler(ScrambleDirection direction, std::uint32_t seed) : direction_(direction), register_(seed) {}

    // Transforms the bytes in place, continuing the register.
    void apply(unsigned char *bytes, std::size_t length) {
        for (std::size_t i = 0; i < length; ++i) {
            const unsigned char in = bytes[i];
            const auto out = static_cast<unsigned char>(in ^ (((register_ >> 5) ^ register_) & 0xFF));
            const unsigned char fed = direction_ == ScrambleDirection::scramble ? out : in;
            register_ = (register_ >> 8) + (static_cast<std::uint32_t>(fed) << 15);
            bytes[i] = out;
        }
    }

private:
    ScrambleDirection direction_;
    std::uint32_t register_;
};

}  // namespace cgissi::maintenance
