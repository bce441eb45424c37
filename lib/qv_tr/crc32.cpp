// CRC-32 of trace records: lets a reader tell a whole record from a torn or
// overwritten one.
#include "trace_format.h"

#include <array>

namespace qvtr {
namespace {

constexpr std::array<uint32_t, 256> make_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kTable = make_table();

}  // namespace

uint32_t crc32(std::span<const uint8_t> bytes, uint32_t crc) {
    crc = ~crc;
    for (uint8_t b : bytes)
        crc = kTable[(crc ^ b) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

}  // namespace qvtr
