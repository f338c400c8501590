#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "config/paths.h"
#include "platform/linux/asio_scheduler.h"
#include "platform/linux/curl_url_session.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "platform/linux/linux_random.h"
#include "testing/simulated_user_database.h"
#include "transfer/throttled_transfer.h"

namespace vondle::bench {

// The transfer engine as it runs in the service, with a home folder of its own and that configuration.
class TransferRig {
 public:
  TransferRig(const std::string& home, const std::string& configuration) : users_(home, configuration) {}

  ThrottledTransfer& transfers() { return transfers_; }

 protected:
  struct Home final : SimulatedUserDatabase {
    Home(const std::string& path, const std::string& configuration) {
      home = path;
      std::filesystem::create_directories(path + "/.vondle");
      std::ofstream(Paths(*this).config()) << configuration;
    }
  };

  Home users_;
  LinuxClock clock_;
  LinuxFiles files_{users_};
  LinuxRandom random_;
  CurlURLLoading loading_;
  AsioScheduler scheduler_;
  Limits limits_{clock_, files_, Paths(users_).config()};
  LargeUpload largeUpload_{clock_, scheduler_, files_, limits_, Paths(users_).folder() + "/large_upload.json"};
  Stats stats_{clock_, scheduler_, files_};
  ThrottledTransfer transfers_{
      TransferServices{clock_, scheduler_, loading_, files_, random_, limits_, largeUpload_, stats_}};
};

}  // namespace vondle::bench
