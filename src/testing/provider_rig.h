#pragma once

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"
#include "config/paths.h"
#include "provider/process.h"
#include "provider/vondle_file_provider.h"
#include "testing/captured_log.h"
#include "testing/scripted_manager.h"
#include "testing/simulated_platform.h"

namespace vondle {

// A configured extension process with one extension, before a server that the test plays.
struct ProviderRig {
  static constexpr const char* API = "https://api.example/vondle/api/";

  ProviderRig() {
    machine.files.put(Paths(machine.users).config(), R"({"server":"https://api.example","api_key":"secret-key"})");
  }

  VondleFileProvider& extension() {
    if (!extension_)
      extension_ = process.makeExtension({"domain", "Ann's files"}, [this](const Domain&) { return manager; });
    return *extension_;
  }

  static ScriptedReply reply(std::string body, int status = 200) {
    ScriptedReply made;
    made.status = status;
    made.body = std::move(body);
    return made;
  }
  // The server's answer, from now on, to addresses that begin with this.
  void answer(const std::string& prefix, std::string body, int status = 200) {
    machine.urlLoading.onRequest(prefix,
                                 [body = std::move(body), status](const URLRequest&) { return reply(body, status); });
  }
  void answerAPI(const std::string& endpoint, std::string body, int status = 200) {
    answer(API + endpoint, std::move(body), status);
  }
  // The addresses that were asked for, in order; the API's without their common beginning.
  [[nodiscard]] std::vector<std::string> requests() const {
    std::vector<std::string> urls;
    for (const auto& task : machine.urlLoading.tasks()) {
      if (!task->isStarted()) continue;
      const std::string_view url = task->url();
      urls.emplace_back(url.starts_with(API) ? url.substr(std::strlen(API)) : url);
    }
    return urls;
  }

  SimulatedPlatform machine;
  VirtualScheduler& scheduler = machine.scheduler;
  CapturedLog log;
  Process process{machine.platform()};
  std::shared_ptr<ScriptedManager> manager = std::make_shared<ScriptedManager>(machine.scheduler.global());

 private:
  std::shared_ptr<VondleFileProvider> extension_;
};

}  // namespace vondle
