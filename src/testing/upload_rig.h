#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/vondle_api.h"
#include "base/json.h"
#include "config/config_loader.h"
#include "config/paths.h"
#include "preview/client_thumb.h"
#include "testing/captured.h"
#include "testing/captured_log.h"
#include "testing/simulated_platform.h"
#include "transfer/large_upload.h"
#include "transfer/limits.h"
#include "transfer/stats.h"
#include "transfer/throttled_transfer.h"
#include "upload/multipart_resume.h"
#include "upload/upload_services.h"

namespace vondle {

// What uploads work with, before a server that the test plays.
struct UploadRig {
  static constexpr const char* API = "https://api.example/vondle/api/";
  static constexpr const char* STORE = "https://store.example/";

  // The seed draws the order in which things happen; none: the order of posting.
  explicit UploadRig(std::optional<std::uint64_t> seed = std::nullopt) : machine(seed) { configure({}); }

  UploadServices services() {
    return {api, transfers, resume, thumbs, largeUpload, limits, files, scheduler, machine.random};
  }

  // The configuration with these settings besides.
  void configure(json::Object settings) {
    settings["server"] = "https://api.example";
    settings["api_key"] = "secret-key";
    files.put(Paths(machine.users).config(), json::serialize(settings));
  }

  static ScriptedReply reply(std::string body, int status = 200) {
    ScriptedReply made;
    made.status = status;
    made.body = std::move(body);
    return made;
  }
  static ScriptedReply tagged(std::string etag) {
    ScriptedReply made;
    made.headers = {{"ETag", std::move(etag)}};
    return made;
  }
  static ScriptedReply failing(Error error) {
    ScriptedReply made;
    made.status = 0;
    made.error = std::move(error);
    return made;
  }
  static Error networkError() { return {URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "the connection was lost"}; }

  // The server's answer, from now on, to requests of this endpoint.
  void answer(const std::string& endpoint, ScriptedReply made) {
    machine.urlLoading.onRequest(API + endpoint, [made = std::move(made)](const URLRequest&) { return made; });
  }
  void answer(const std::string& endpoint, std::string body, int status = 200) {
    answer(endpoint, reply(std::move(body), status));
  }
  // The answer to what is sent to addresses of the store that begin with this.
  void answerStore(const std::string& path, ScriptedReply made) {
    machine.urlLoading.onRequest(STORE + path, [made = std::move(made)](const URLRequest&) { return made; });
  }

  // Plays the server of an upload in parts: it hands out the address part/N, answers a part with the tag "tag-N" and
  // takes everything else but what comes to the silent endpoint.
  void servePartsUploads() {
    machine.urlLoading.onRequest(API, [this](const URLRequest& request) {
      return request.url == API + silent ? std::nullopt : std::optional(reply("{}"));
    });
    machine.urlLoading.onRequest(std::string(API) + "upload-parts", [](const URLRequest& request) {
      const auto number = json::parseObject(request.body.value())->at("parts").at(0).as_int64();
      const auto url = std::string(STORE) + "part/" + std::to_string(number);
      return reply(json::serialize(json::Object{{"parts", json::Array{json::Object{{"part", number}, {"url", url}}}}}));
    });
    machine.urlLoading.onRequest(std::string(STORE) + "part/", [](const URLRequest& request) {
      return tagged("tag-" + request.url.substr(std::strlen(STORE) + std::strlen("part/")));
    });
  }

  // What was asked for, in order: of the API "ENDPOINT BODY", of the store "METHOD PATH". Without parameters: all.
  [[nodiscard]] std::vector<std::string> requests(std::string_view beginning = "") const {
    std::vector<std::string> lines;
    for (const auto& task : machine.urlLoading.tasks()) {
      if (!task->isStarted()) continue;
      const auto& request = task->originalRequest();
      const std::string_view url = request.url;
      std::string line = url.starts_with(API)
                             ? std::string(url.substr(std::strlen(API))) + " " + request.body.value_or("")
                             : request.method + " " + std::string(url.substr(std::min(url.size(), std::strlen(STORE))));
      if (line.starts_with(beginning)) lines.push_back(std::move(line));
    }
    return lines;
  }
  // What the requests of one endpoint asked for, in order.
  [[nodiscard]] std::vector<json::Value> bodies(std::string_view endpoint) const {
    std::vector<json::Value> found;
    for (const auto& line : requests(std::string(endpoint) + " "))
      found.push_back(json::parse(line.substr(endpoint.size() + 1)).value());
    return found;
  }
  // Slices of files that have not been cleared away.
  [[nodiscard]] std::vector<std::string> slices() const { return files.list(SimulatedFiles::TEMPORARY_FOLDER); }

  std::string silent;
  SimulatedPlatform machine;
  VirtualScheduler& scheduler = machine.scheduler;
  SimulatedFiles& files = machine.files;
  CapturedLog log;
  ConfigLoader config{files, machine.keychain, Paths(machine.users)};
  Limits limits{scheduler, files, Paths(machine.users).config()};
  LargeUpload largeUpload{scheduler, scheduler, files, limits, Paths(machine.users).folder() + "/large_upload.json"};
  Stats stats{scheduler, scheduler, files};
  MultipartResume resume{files, scheduler};
  VondleAPI api{machine.urlLoading, scheduler, config, "test/1 (1); vondle"};
  ClientThumb thumbs{scheduler, scheduler, files, machine.random, machine.urlLoading, machine.previews};
  ThrottledTransfer transfers{TransferServices{.clock = scheduler,
                                               .scheduler = scheduler,
                                               .urlLoading = machine.urlLoading,
                                               .files = files,
                                               .random = machine.random,
                                               .limits = limits,
                                               .largeUpload = largeUpload,
                                               .stats = stats}};
};

}  // namespace vondle
