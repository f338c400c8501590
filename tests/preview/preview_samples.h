#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/helper_preview_renderer.h"

namespace vondle {

// A folder for the samples of one test program, made on first use and removed at its end.
const std::filesystem::path& sampleFolder();

// Runs a shell command in the sample folder; throws std::runtime_error with the command when it fails.
void run(const std::string& command);

std::string sample(std::string_view name);  // its path
std::string readSample(std::string_view name);
std::string writeSample(std::string_view name, std::string_view bytes);  // answers the path

using Colour = std::array<int, 3>;

// A decoded JPEG.
struct Preview {
  std::string jpeg;
  int width = 0;
  int height = 0;
  std::vector<unsigned char> rgb = {};

  [[nodiscard]] Colour at(int x, int y) const;
  [[nodiscard]] Colour centre() const { return at(width / 2, height / 2); }
  // The colours in the middle of the four quarters: top left, top right, bottom left, bottom right.
  [[nodiscard]] std::array<Colour, 4> quarters() const;
  [[nodiscard]] std::string size() const { return std::to_string(width) + "x" + std::to_string(height); }
};

// No colour differs by more than the tolerance.
bool isNear(const Colour& a, const Colour& b, int tolerance);

// What the real helper makes of the file, with the product's values. A JPEG that cannot be decoded throws.
std::optional<Preview> previewOfPicture(const std::string& path);
std::optional<Preview> previewOfVideo(const std::string& path);

inline constexpr Colour RED = {220, 30, 30};
inline constexpr Colour GREEN = {30, 160, 50};
inline constexpr Colour BLUE = {40, 60, 200};
inline constexpr Colour YELLOW = {230, 210, 40};
inline constexpr Colour WHITE = {255, 255, 255};

// Makes a PNG whose quarters are red, green (top), blue, yellow (bottom); width and height are even.
void makeQuarters(std::string_view name, int width, int height);

}  // namespace vondle
