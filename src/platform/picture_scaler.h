#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/completion.h"

namespace vondle {

// A picture as PNGs, one for each of THUMBNAIL_SIDES, upright and in sRGB: their longer sides are that long, or as long
// as the picture's if that is shorter.
using ScaledPicture = std::vector<std::string>;
using ScalingCompletion = Completion<std::optional<ScaledPicture>>;

inline constexpr int THUMBNAIL_SIDES[] = {128, 256, 512};

// Makes thumbnails of small pictures that are in memory. What the bytes hold is never trusted, and neither is the
// format of what comes out: whoever writes it where other programs read it checks it first.
//
// Any thread may call; no call waits. Completions run on a thread of the scaler, and never before the call returns.
class PictureScaler {
 public:
  // More is refused.
  static constexpr std::size_t MAX_PICTURE_BYTES = 4u << 20;

  virtual ~PictureScaler() = default;

  // None when the bytes are no picture that can be read here.
  virtual void scale(std::string picture, ScalingCompletion completion) = 0;
};

}  // namespace vondle
