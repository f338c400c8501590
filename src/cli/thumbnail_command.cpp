#include <charconv>
#include <memory>
#include <optional>
#include <string_view>

#include "base/base64.h"
#include "cli/commands.h"
#include "cli/item_locator.h"
#include "cli/service_connection.h"

namespace vondle {

namespace {

struct ThumbnailOptions {
  std::string path;
  std::string output;
  std::string size = "256x256";
};

struct Size {
  int width = 0;
  int height = 0;
};

std::optional<int> positive(std::string_view text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number > 0 ? std::optional(number) : std::nullopt;
}

std::optional<Size> sizeOf(std::string_view text) {
  const auto cross = text.find('x');
  if (cross == std::string_view::npos) return std::nullopt;
  const auto width = positive(text.substr(0, cross)), height = positive(text.substr(cross + 1));
  return width && height ? std::optional(Size{*width, *height}) : std::nullopt;
}

Outcome<void> thumbnail(const CommandContext& context, const ThumbnailOptions& options) {
  const auto size = sizeOf(options.size);
  if (!size) return fail(ExitCode::usage, "the size is written as WIDTHxHEIGHT, as in 256x256");
  auto service = ServiceConnection::open(context.folders.socket());
  if (!service) return std::unexpected(service.error());
  const auto status = service->ask({{"command", "status"}});
  if (!status) return std::unexpected(status.error());
  const auto inode = locateItem(options.path, std::string(json::text(*status, "mount").value_or("")));
  if (!inode) return std::unexpected(inode.error());
  const auto result =
      service->ask({{"command", "thumbnail"}, {"inode", *inode}, {"width", size->width}, {"height", size->height}});
  if (!result) return std::unexpected(result.error());
  const auto image = bytesOfBase64(json::text(*result, "image").value_or("?"));
  if (!image) return fail(ExitCode::failed, "the service's answer cannot be read");
  if (const auto written = context.platform.files.writeAtomically(options.output, *image, 0644); !written)
    return fail(ExitCode::failed, options.output + ": " + written.error().localizedDescription());
  return {};
}

}  // namespace

void addThumbnail(CLI::App& app, CommandContext& context, Command& chosen) {
  auto options = std::make_shared<ThumbnailOptions>();
  auto* command =
      app.add_subcommand("thumbnail", "Save the small picture that stands for a file, as the server has it");
  command->add_option("path", options->path, "File in the Vondle folder")->required();
  command->add_option("-o,--output", options->output, "Where the picture goes")->required();
  command->add_option("--size", options->size, "The size wished, in points: WIDTHxHEIGHT; a hint")
      ->capture_default_str();
  command->callback(
      [&context, &chosen, options] { chosen = [&context, options] { return thumbnail(context, *options); }; });
}

}  // namespace vondle
