#include "platform/linux/preview_helper/pixels.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <utility>

namespace vondle {
namespace {

constexpr std::uint32_t OPAQUE = 255;

// How an old row or column is shared between the new one in which it begins and the next. The shares of all that make
// up a new one are as many as there are old ones.
struct Share {
  std::size_t to = 0;
  std::uint32_t first = 0;
  std::uint32_t second = 0;
};

std::vector<Share> sharesOf(int oldSize, int newSize) {
  std::vector<Share> shares;
  for (int i = 0; i < oldSize; ++i) {
    const int begin = i * newSize, to = begin / oldSize;
    const int first = std::min(newSize, (to + 1) * oldSize - begin);
    shares.push_back(
        {static_cast<std::size_t>(to), static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(newSize - first)});
  }
  return shares;
}

// What cannot be seen has no colour, and so must have none in a mean.
void multiplyByOpacity(Pixels& picture) {
  for (std::size_t i = 0; i < picture.values.size(); i += 4)
    for (std::size_t band = 0; band < 3; ++band)
      picture.values[i + band] = static_cast<std::uint8_t>(
          (picture.values[i + band] * std::uint32_t{picture.values[i + 3]} + OPAQUE / 2) / OPAQUE);
}

void divideByOpacity(Pixels& picture) {
  for (std::size_t i = 0; i < picture.values.size(); i += 4) {
    const std::uint32_t opacity = picture.values[i + 3];
    for (std::size_t band = 0; opacity != 0 && band < 3; ++band)
      picture.values[i + band] =
          static_cast<std::uint8_t>(std::min(OPAQUE, (picture.values[i + band] * OPAQUE + opacity / 2) / opacity));
  }
}

void add(std::vector<std::uint32_t>& sums, std::span<const std::uint8_t> values, std::uint32_t share) {
  for (std::size_t i = 0; share != 0 && i < values.size(); ++i) sums[i] += values[i] * share;
}

// One new row, of the sums over the old rows that it covers.
void appendMeans(const std::vector<std::uint32_t>& row, const std::vector<Share>& columns, float area, Pixels& scaled) {
  const auto bands = static_cast<std::size_t>(scaled.bands);
  // The last column has no next one to share with: one more takes the nothing that is for it.
  std::vector<std::uint32_t> sums((static_cast<std::size_t>(scaled.width) + 1) * bands);
  const auto* value = row.data();
  for (const auto& share : columns) {
    auto* sum = sums.data() + share.to * bands;
    for (std::size_t band = 0; band < bands; ++band, ++value) {
      sum[band] += *value * share.first;
      sum[band + bands] += *value * share.second;
    }
  }
  // Rounded by hand: std::lround would be a call for each.
  constexpr float HALF = 0.5F;
  const auto mean = [area](std::uint32_t sum) {
    return static_cast<std::uint8_t>(static_cast<float>(sum) / area + HALF);
  };
  std::transform(sums.begin(), sums.end() - scaled.bands, std::back_inserter(scaled.values), mean);
}

Pixels meansOf(const Pixels& old, int width, int height) {
  const auto columns = sharesOf(old.width, width), rows = sharesOf(old.height, height);
  const float area = static_cast<float>(old.width) * static_cast<float>(old.height);
  const auto rowSize = columns.size() * static_cast<std::size_t>(old.bands);
  std::vector<std::uint32_t> row(rowSize), next(rowSize);
  Pixels scaled{.width = width, .height = height, .bands = old.bands, .values = {}};
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto values = std::span(old.values).subspan(i * rowSize, rowSize);
    add(row, values, rows[i].first);
    add(next, values, rows[i].second);
    if (i + 1 < rows.size() && rows[i + 1].to == rows[i].to) continue;
    appendMeans(row, columns, area, scaled);
    row.swap(next);
    std::ranges::fill(next, 0);
  }
  return scaled;
}

}  // namespace

Pixels scaledDown(Pixels picture, int width, int height) {
  const bool hasOpacity = picture.bands == 4;
  if (hasOpacity) multiplyByOpacity(picture);
  auto scaled = meansOf(picture, width, height);
  if (hasOpacity) divideByOpacity(scaled);
  return scaled;
}

}  // namespace vondle
