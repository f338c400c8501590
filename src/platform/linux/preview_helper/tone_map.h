#pragma once

#include <cstdint>
#include <span>

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace vondle {

// True for the transfer functions of high dynamic range: PQ and HLG.
bool isHighDynamicRange(AVColorTransferCharacteristic transfer);

// Turns rows of red, green, blue of such a picture into sRGB for an ordinary screen: whites stay near white, what is
// brighter is compressed instead of cut off, and wide-gamut colours come out as on an ordinary screen.
// rgb has three values a pixel; the result goes to bytes of the same count.
void toneMap(std::span<const std::uint16_t> rgb, AVColorTransferCharacteristic transfer, bool isBT2020,
             std::span<std::uint8_t> bytes);

}  // namespace vondle
