#pragma once

#include <sys/types.h>

#include <string>

namespace vondle::bench {

// A web server of the measurement's own on 127.0.0.1, which serves one folder and takes what is put below "put/" in it.
// It also plays the API for uploads in parts: a new address there for each part, and yes to everything. Ends with the
// object.
class Nginx {
 public:
  // Its own files lie in the work folder, which is made.
  Nginx(const std::string& workFolder, const std::string& servedFolder);
  ~Nginx();
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

  [[nodiscard]] std::string origin() const;
  [[nodiscard]] std::string url(const std::string& name) const { return origin() + "/" + name; }

 private:
  int port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace vondle::bench
