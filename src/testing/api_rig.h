#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "api/vondle_api.h"
#include "config/config_loader.h"
#include "testing/captured.h"
#include "testing/captured_log.h"
#include "testing/scripted_url_session.h"
#include "testing/simulated_files.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_user_database.h"
#include "testing/virtual_scheduler.h"

namespace vondle {

// The API client with a configuration, before a server that the test plays.
struct ApiRig {
  static constexpr const char* SERVER = "https://api.example";
  static constexpr const char* API = "https://api.example/vondle/api/";
  static constexpr const char* KEY = "secret-key";
  static constexpr const char* CLIENT = "test/1 (1); vondle";

  ApiRig() { configure(SERVER); }

  void configure(std::string_view server) {
    files.put(configPath, json::serialize(json::Object{{"server", server}, {"api_key", KEY}}));
  }

  // The server's answer, from now on, to requests whose address below the API begins with this.
  void answer(std::string_view endpoint, std::string body, int status = 200) {
    loading.onRequest(API + std::string(endpoint),
                      [body = std::move(body), status](const URLRequest&) { return reply(body, status); });
  }
  void fail(std::string_view endpoint, Error error) {
    loading.onRequest(API + std::string(endpoint), [error = std::move(error)](const URLRequest&) {
      ScriptedReply none = reply("", 0);
      none.error = error;
      return none;
    });
  }
  static ScriptedReply reply(std::string body, int status = 200) {
    ScriptedReply reply;
    reply.status = status;
    reply.body = std::move(body);
    return reply;
  }

  // The addresses below the API that were asked for, in order.
  [[nodiscard]] std::vector<std::string> requests() const {
    std::vector<std::string> urls;
    for (const auto& task : loading.tasks())
      if (std::string_view(task->url()).starts_with(API)) urls.push_back(task->url().substr(std::strlen(API)));
    return urls;
  }

  const SimulatedUserDatabase users;
  const std::string configPath = Paths(users).config();
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  SimulatedKeychain keychain;
  CapturedLog log;
  ScriptedURLLoading loading{scheduler, files};
  ConfigLoader config{files, keychain, Paths(users)};
  VondleAPI api{loading, scheduler, config, CLIENT};
};

}  // namespace vondle
