#include "platform/linux/preview_helper/tone_map.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace vondle {
namespace {

// Light is counted in units of the white of a page (203 cd/m², ITU-R BT.2408).
constexpr double REFERENCE_WHITE = 203.0;
// The brightest that is told apart: what most material is mastered for.
constexpr double PEAK = 1000.0 / REFERENCE_WHITE;

// SMPTE ST 2084.
double fromPQ(double signal) {
  constexpr double M1 = 2610.0 / 16384, M2 = 2523.0 / 32, C1 = 3424.0 / 4096, C2 = 2413.0 / 128, C3 = 2392.0 / 128;
  const double root = std::pow(signal, 1 / M2);
  return 10000.0 / REFERENCE_WHITE * std::pow(std::max(root - C1, 0.0) / (C2 - C3 * root), 1 / M1);
}

// ITU-R BT.2100, for a screen of 1000 cd/m²; its system gamma is applied to each colour alone, which is near enough.
double fromHLG(double signal) {
  constexpr double A = 0.17883277, B = 1 - 4 * A;
  const double C = 0.5 - A * std::log(4 * A);
  const double scene = signal <= 0.5 ? signal * signal / 3 : (std::exp((signal - C) / A) + B) / 12;
  return PEAK * std::pow(scene, 1.2);
}

// Unchanged in the shadows and mid-tones; from the knee on ever flatter, up to the peak, which becomes 1.
double compress(double light) {
  constexpr double KNEE = 0.5;
  constexpr double BEND = (1 - KNEE) / (PEAK - 1);  // makes the slope at the knee 1
  if (light <= KNEE) return light;
  const double above = (light - KNEE) / (PEAK - KNEE);
  return KNEE + (1 - KNEE) * above * (1 + BEND) / (above + BEND);
}

double toSRGB(double light) {
  return light <= 0.0031308 ? 12.92 * light : 1.055 * std::pow(light, 1 / 2.4) - 0.055;
}

constexpr int STEPS = 4096;

template <class Value, class Function>
std::vector<Value> table(Function&& function) {
  std::vector<Value> values(STEPS);
  for (int i = 0; i < STEPS; ++i) values[i] = static_cast<Value>(function(static_cast<double>(i) / (STEPS - 1)));
  return values;
}

// BT.2020 to BT.709, both linear.
constexpr std::array<std::array<float, 3>, 3> TO_709 = {
    {{1.6605F, -0.5876F, -0.0728F}, {-0.1246F, 1.1329F, -0.0083F}, {-0.0182F, -0.1006F, 1.1187F}}};

}  // namespace

bool isHighDynamicRange(AVColorTransferCharacteristic transfer) {
  return transfer == AVCOL_TRC_SMPTE2084 || transfer == AVCOL_TRC_ARIB_STD_B67;
}

void toneMap(std::span<const std::uint16_t> rgb, AVColorTransferCharacteristic transfer, bool isBT2020,
             std::span<std::uint8_t> bytes) {
  const auto linear = table<float>(transfer == AVCOL_TRC_SMPTE2084 ? fromPQ : fromHLG);
  const auto display = table<std::uint8_t>([](double light) { return std::lround(255 * toSRGB(light)); });
  for (std::size_t i = 0; i + 2 < rgb.size(); i += 3) {
    const std::array<float, 3> wide = {linear[rgb[i] >> 4], linear[rgb[i + 1] >> 4], linear[rgb[i + 2] >> 4]};
    std::array<float, 3> light = wide;
    if (isBT2020)
      for (int row = 0; row < 3; ++row)
        light[row] = TO_709[row][0] * wide[0] + TO_709[row][1] * wide[1] + TO_709[row][2] * wide[2];
    // By the brightest colour alone, so that hues stay what they are.
    const float brightest = std::max({light[0], light[1], light[2], 1e-6F});
    const auto scale = static_cast<float>(compress(brightest)) / brightest;
    for (int colour = 0; colour < 3; ++colour)
      bytes[i + colour] = display[std::lround(std::clamp(light[colour] * scale, 0.0F, 1.0F) * (STEPS - 1))];
  }
}

}  // namespace vondle
