#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Metrix {

/// The CRC-32C (Castagnoli polynomial, reflected) of the bytes.
uint32_t Crc32c(std::span<const std::byte> bytes);

} // namespace Metrix
