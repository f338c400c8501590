#pragma once

namespace vondle {

class ClientThumb;
class Files;
class LargeUpload;
class Limits;
class MultipartResume;
class RandomSource;
class Scheduler;
class ThrottledTransfer;
class VondleAPI;

// What uploads work with. A value of references: what they name must outlive every upload.
struct UploadServices {
  VondleAPI& api;
  ThrottledTransfer& transfers;
  MultipartResume& resume;
  ClientThumb& thumbs;
  LargeUpload& largeUpload;
  Limits& limits;
  Files& files;
  Scheduler& scheduler;
  RandomSource& random;
};

}  // namespace vondle
