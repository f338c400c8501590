#pragma once

#include <optional>
#include <string>

namespace vondle {

// One frame of the video behind the descriptor (MP4, QuickTime, 3GP), upright, no larger than the box and never
// enlarged, as a JPEG: the frame shown one second into the video, or in its middle when it lasts less than two seconds.
// Of a file that breaks off before, the last frame there is. None without a video track that can be decoded.
std::optional<std::string> renderVideo(int descriptor, int maxWidth, int maxHeight, int quality);

}  // namespace vondle
