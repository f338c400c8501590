#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/error.h"
#include "platform/picture_scaler.h"

namespace vondle {

// A file as its thumbnail names it.
struct ThumbnailSubject {
  std::string uri;
  std::int64_t modified = 0;  // whole seconds since 1970
  std::int64_t size = 0;
};

// The desktop's thumbnails, as freedesktop.org lays them down for all programs: PNGs in normal/ (128 pixels), large/
// (256) and x-large/ (512) below one folder, named after the file's URI and naming it with its time.
//
// Both smaller sizes are always written, so that no file manager opens the file itself to make them; x-large only where
// the picture is larger than 256 pixels and so shows more. It is no place for secrets of other users: a folder that is
// not this user's own, or that others can write to, is not written to. One thread at a time.
class ThumbnailCache {
 public:
  // The folder is made when it is needed.
  ThumbnailCache(std::string folder, const std::string& version);

  // $XDG_CACHE_HOME/thumbnails, which without an absolute value is ~/.cache/thumbnails.
  static std::string folderOf(const std::string& home, const std::optional<std::string>& cacheHome);
  static std::string folderOfEnvironment(const std::string& home);
  // As GLib escapes it, of an absolute path.
  static std::string uriOf(const std::string& path);

  // Whether all that is always written is there for this time of the file, whoever wrote it.
  [[nodiscard]] bool has(const ThumbnailSubject& subject) const;
  [[nodiscard]] bool hasFailure(const ThumbnailSubject& subject) const;

  // Whether the PNGs are what others may be given to read.
  [[nodiscard]] static bool isAcceptable(const ScaledPicture& picture);
  // Of one that is acceptable.
  Result<void> store(const ThumbnailSubject& subject, const ScaledPicture& picture) const;
  // That there is no thumbnail of it, which only this version of this program takes notice of.
  Result<void> storeFailure(const ThumbnailSubject& subject) const;

  // The file has another name, or is gone: in all sizes. What cannot be moved is removed.
  void move(const std::string& uri, const std::string& newURI) const;
  void remove(const std::string& uri) const;
  // All that this program wrote, in whatever version and of whatever file.
  void removeOwn() const;

  // All there are, of all sizes and of all programs; relative paths.
  [[nodiscard]] std::vector<std::string> entries() const;
  [[nodiscard]] std::optional<std::string> uriOfEntry(const std::string& entry) const;

 private:
  [[nodiscard]] bool isValid(const std::string& subfolder, const ThumbnailSubject& subject) const;
  [[nodiscard]] std::string textsOn(const std::string& png, const ThumbnailSubject& subject) const;
  [[nodiscard]] Result<void> write(const std::string& subfolder, const std::string& name, const std::string& png) const;

  const std::string folder_;
  const std::string software_;
  const std::string failures_;                 // its subfolder
  const std::vector<std::string> subfolders_;  // all
};

}  // namespace vondle
