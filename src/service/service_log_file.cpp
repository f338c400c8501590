#include "service/service_log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <systemd/sd-journal.h>

namespace vondle {

namespace {

constexpr off_t MAX_LOG = 10 << 20;

int openJournal() {
  const int journal = ::sd_journal_stream_fd("vondle-service", LOG_INFO, 0);
  struct stat status{};
  if (journal < 0 || ::fstat(journal, &status) != 0) return -1;
  // By this the journal's clients know their stderr.
  ::setenv("JOURNAL_STREAM", fmt::format("{}:{}", status.st_dev, status.st_ino).c_str(), 1);
  return journal;
}

int openFile(const std::string& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) == 0 && status.st_size > MAX_LOG) ::rename(path.c_str(), (path + ".1").c_str());
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
}

}  // namespace

void sendLogToFile(const std::string& path) {
  int log = openJournal();
  if (log < 0) log = openFile(path);
  if (log < 0) return;
  ::dup2(log, STDERR_FILENO);
  ::close(log);
}

}  // namespace vondle
