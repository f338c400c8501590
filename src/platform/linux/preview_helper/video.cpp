#include "platform/linux/preview_helper/video.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/linux/preview_helper/jpeg.h"
#include "platform/linux/preview_helper/tone_map.h"
#include "platform/linux/preview_helper/vips_handle.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace vondle {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds MAX_TIME{30};
constexpr AVRational TIME_SCALE = {1, 600};
constexpr std::int64_t POSTER_TIME = 600;         // one second
constexpr std::int64_t SHORT_DURATION = 2 * 600;  // shorter than this: the middle
constexpr int MAX_DECODED_FRAMES = 600;           // from the key frame before to the one wanted
constexpr std::int64_t MAX_FRAME_PIXELS = 100'000'000;
constexpr int BUFFER_BYTES = 1 << 16;

struct FreeFormat {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct FreeIO {
  void operator()(AVIOContext* context) const {
    av_freep(&context->buffer);
    avio_context_free(&context);
  }
};
struct FreeCodec {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeScaler {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using FrameHandle = std::unique_ptr<AVFrame, FreeFrame>;

// The file as FFmpeg reads it: it opens nothing by itself, whatever the video refers to.
struct Input {
  explicit Input(int itsDescriptor) : descriptor(itsDescriptor) {}

  [[nodiscard]] bool isLate() const { return steady_clock::now() >= deadline; }

  static int read(void* opaque, std::uint8_t* buffer, int size) {
    const auto* self = static_cast<const Input*>(opaque);
    if (self->isLate()) return AVERROR_EXIT;
    const auto count = ::read(self->descriptor, buffer, static_cast<std::size_t>(size));
    if (count == 0) return AVERROR_EOF;
    return count < 0 ? AVERROR(errno) : static_cast<int>(count);
  }
  static std::int64_t seek(void* opaque, std::int64_t offset, int whence) {
    const auto* self = static_cast<const Input*>(opaque);
    if (whence & AVSEEK_SIZE) {
      struct stat status;
      return fstat(self->descriptor, &status) == 0 ? status.st_size : AVERROR(errno);
    }
    const auto position = lseek(self->descriptor, offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : position;
  }
  static int interrupt(void* opaque) { return static_cast<const Input*>(opaque)->isLate() ? 1 : 0; }

  const int descriptor;
  const steady_clock::time_point deadline = steady_clock::now() + MAX_TIME;
};

class Video {
 public:
  explicit Video(int descriptor) : input_(descriptor) {}

  bool open();
  FrameHandle posterFrame();
  // How the frame is to be turned: the track's display matrix, row by row, or null.
  [[nodiscard]] const std::int32_t* displayMatrix() const;
  [[nodiscard]] AVRational pixelShape(AVFrame* frame) {
    return av_guess_sample_aspect_ratio(format_.get(), stream_, frame);
  }

 private:
  bool openDecoder(const AVCodec* decoder);
  [[nodiscard]] std::int64_t posterTimestamp() const;
  bool nextFrame(AVFrame* frame);

  Input input_;
  std::unique_ptr<AVIOContext, FreeIO> io_;
  std::unique_ptr<AVFormatContext, FreeFormat> format_;
  std::unique_ptr<AVCodecContext, FreeCodec> codec_;
  AVStream* stream_ = nullptr;
};

bool Video::open() {
  auto* buffer = static_cast<unsigned char*>(av_malloc(BUFFER_BYTES));
  if (!buffer) return false;
  io_.reset(avio_alloc_context(buffer, BUFFER_BYTES, 0, &input_, Input::read, nullptr, Input::seek));
  AVFormatContext* context = avformat_alloc_context();
  if (!io_ || !context) return false;
  context->pb = io_.get();
  context->interrupt_callback = {Input::interrupt, &input_};
  AVDictionary* options = nullptr;
  av_dict_set(&options, "format_whitelist", "mov,mp4,m4a,3gp,3g2,mj2", 0);
  av_dict_set(&options, "protocol_whitelist", "", 0);
  av_dict_set(&options, "max_streams", "64", 0);
  av_dict_set(&options, "probesize", "5000000", 0);
  const int opened = avformat_open_input(&context, "", av_find_input_format("mov"), &options);
  av_dict_free(&options);
  if (opened < 0) return false;  // which frees the context
  format_.reset(context);
  if (avformat_find_stream_info(context, nullptr) < 0) return false;

  const AVCodec* decoder = nullptr;
  const int index = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
  if (index < 0 || !decoder) return false;
  stream_ = context->streams[index];
  const bool isCover = stream_->disposition & AV_DISPOSITION_ATTACHED_PIC;
  return !isCover && openDecoder(decoder);
}

bool Video::openDecoder(const AVCodec* decoder) {
  codec_.reset(avcodec_alloc_context3(decoder));
  if (!codec_ || avcodec_parameters_to_context(codec_.get(), stream_->codecpar) < 0) return false;
  codec_->pkt_timebase = stream_->time_base;
  codec_->max_pixels = MAX_FRAME_PIXELS;
  codec_->thread_count = 1;
  return avcodec_open2(codec_.get(), decoder, nullptr) >= 0;
}

std::int64_t Video::posterTimestamp() const {
  std::int64_t time = POSTER_TIME;
  if (format_->duration != AV_NOPTS_VALUE) {
    const auto duration = av_rescale_q(format_->duration, AVRational{1, AV_TIME_BASE}, TIME_SCALE);
    if (duration < SHORT_DURATION) time = std::max<std::int64_t>(duration / 2, 0);
  }
  const std::int64_t start = stream_->start_time == AV_NOPTS_VALUE ? 0 : stream_->start_time;
  return start + av_rescale_q(time, TIME_SCALE, stream_->time_base);
}

// Feeds the decoder until it gives a frame; damaged packets are passed over. False at the end.
bool Video::nextFrame(AVFrame* frame) {
  const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
  while (packet) {
    const int received = avcodec_receive_frame(codec_.get(), frame);
    if (received >= 0) return true;
    if (received != AVERROR(EAGAIN) || input_.isLate()) return false;
    const bool atEnd = av_read_frame(format_.get(), packet.get()) < 0;
    if (atEnd || packet->stream_index == stream_->index)
      avcodec_send_packet(codec_.get(), atEnd ? nullptr : packet.get());
    av_packet_unref(packet.get());
  }
  return false;
}

// The last frame that begins no later than the time wanted; the first one when none does.
FrameHandle Video::posterFrame() {
  const std::int64_t wanted = posterTimestamp();
  av_seek_frame(format_.get(), stream_->index, wanted, AVSEEK_FLAG_BACKWARD);
  FrameHandle best;
  for (int i = 0; i < MAX_DECODED_FRAMES; ++i) {
    FrameHandle frame(av_frame_alloc());
    if (!frame || !nextFrame(frame.get())) break;
    const bool isLater = frame->best_effort_timestamp != AV_NOPTS_VALUE && frame->best_effort_timestamp > wanted;
    if (best && isLater) break;
    best = std::move(frame);
    if (isLater) break;
  }
  return best;
}

const std::int32_t* Video::displayMatrix() const {
  std::size_t size = 0;
  const auto* data = av_stream_get_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, &size);
  return size >= 9 * sizeof(std::int32_t) ? reinterpret_cast<const std::int32_t*>(data) : nullptr;
}

// How a frame must be turned to be upright: first by quarter turns clockwise, then mirrored left to right.
struct Turn {
  int quarters = 0;
  bool mirrored = false;
};

Turn turnOf(const std::int32_t* matrix) {
  if (!matrix) return {};
  std::array<std::int32_t, 9> upright;
  std::copy_n(matrix, upright.size(), upright.begin());
  const auto determinant = std::int64_t{matrix[0]} * matrix[4] - std::int64_t{matrix[1]} * matrix[3];
  const bool mirrored = determinant < 0;
  if (mirrored) av_display_matrix_flip(upright.data(), 1, 0);
  const double angle = av_display_rotation_get(upright.data());
  if (std::isnan(angle)) return {.quarters = 0, .mirrored = mirrored};
  return {.quarters = (static_cast<int>(std::lround(-angle / 90)) % 4 + 4) % 4, .mirrored = mirrored};
}

struct Size {
  int width;
  int height;
};

// What the frame is scaled to before it is turned.
Size sizeInBox(const AVFrame& frame, AVRational pixelShape, bool sideways, int maxWidth, int maxHeight) {
  double width = frame.width;
  double height = frame.height;
  if (pixelShape.num > 0 && pixelShape.den > 0) width *= av_q2d(pixelShape);
  if (sideways) std::swap(maxWidth, maxHeight);
  const double scale = std::min({1.0, maxWidth / width, maxHeight / height});
  const auto whole = [&](double side) { return std::max(1, static_cast<int>(std::lround(side * scale))); };
  return {whole(width), whole(height)};
}

// Tells the scaler what the numbers of the frame mean; the library's guess is wrong for most videos.
void describeColours(SwsContext* scaler, const AVFrame& frame) {
  constexpr int FIRST_HD_LINES = 720;
  int space = frame.colorspace;
  if (space == AVCOL_SPC_UNSPECIFIED) space = frame.height >= FIRST_HD_LINES ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
  int *inverse, *table;
  int sourceRange, targetRange, brightness, contrast, saturation;
  if (sws_getColorspaceDetails(scaler, &inverse, &sourceRange, &table, &targetRange, &brightness, &contrast,
                               &saturation) < 0)
    return;
  sws_setColorspaceDetails(scaler, sws_getCoefficients(space), frame.color_range == AVCOL_RANGE_JPEG || sourceRange,
                           table, 1, brightness, contrast, saturation);
}

ImageHandle imageOf(const AVFrame& frame, Size size) {
  const auto* description = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
  if (!description) return nullptr;
  const bool bright = isHighDynamicRange(frame.color_trc);
  const bool transparent = !bright && (description->flags & AV_PIX_FMT_FLAG_ALPHA);
  const AVPixelFormat target = bright ? AV_PIX_FMT_RGB48 : transparent ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGB24;
  const int bands = transparent ? 4 : 3;

  const std::unique_ptr<SwsContext, FreeScaler> scaler(
      sws_getContext(frame.width, frame.height, static_cast<AVPixelFormat>(frame.format), size.width, size.height,
                     target, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
  if (!scaler) return nullptr;
  describeColours(scaler.get(), frame);

  const FrameHandle scaled(av_frame_alloc());
  if (!scaled) return nullptr;
  scaled->format = target;
  scaled->width = size.width;
  scaled->height = size.height;
  if (av_frame_get_buffer(scaled.get(), 0) < 0 ||
      sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, scaled->data, scaled->linesize) <= 0)
    return nullptr;

  const std::size_t rowValues = static_cast<std::size_t>(size.width) * bands;
  std::vector<std::uint8_t> bytes(rowValues * size.height);
  std::vector<std::uint16_t> wide(bright ? bytes.size() : 0);
  for (int row = 0; row < size.height; ++row) {
    const auto* from = scaled->data[0] + std::ptrdiff_t{row} * scaled->linesize[0];
    const std::size_t at = row * rowValues;
    if (bright)
      std::memcpy(wide.data() + at, from, rowValues * sizeof(std::uint16_t));
    else
      std::memcpy(bytes.data() + at, from, rowValues);
  }
  if (bright) toneMap(wide, frame.color_trc, frame.color_primaries != AVCOL_PRI_BT709, bytes);
  ImageHandle image(
      vips_image_new_from_memory_copy(bytes.data(), bytes.size(), size.width, size.height, bands, VIPS_FORMAT_UCHAR));
  if (image) image->Type = VIPS_INTERPRETATION_sRGB;
  return image;
}

ImageHandle turned(ImageHandle image, Turn turn) {
  if (image && turn.quarters != 0)
    image = made([&](VipsImage** out) {
      return vips_rot(image.get(), out, static_cast<VipsAngle>(VIPS_ANGLE_D0 + turn.quarters), nullptr);
    });
  if (image && turn.mirrored)
    image = made([&](VipsImage** out) { return vips_flip(image.get(), out, VIPS_DIRECTION_HORIZONTAL, nullptr); });
  return image;
}

}  // namespace

std::optional<std::string> renderVideo(int descriptor, int maxWidth, int maxHeight, int quality) {
  av_log_set_level(AV_LOG_QUIET);
  Video video(descriptor);
  if (!video.open()) return std::nullopt;
  const FrameHandle frame = video.posterFrame();
  if (!frame) return std::nullopt;
  const Turn turn = turnOf(video.displayMatrix());
  const Size size = sizeInBox(*frame, video.pixelShape(frame.get()), turn.quarters % 2 == 1, maxWidth, maxHeight);
  const auto image = turned(imageOf(*frame, size), turn);
  return image ? encodeJPEG(image.get(), quality) : std::nullopt;
}

}  // namespace vondle
