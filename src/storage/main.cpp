#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "platform/linux/helper_preview_renderer.h"
#include "platform/linux/linux_clock.h"
#include "storage/accounts.h"
#include "storage/count.h"
#include "storage/crypto.h"
#include "storage/http_server.h"
#include "storage/importer.h"
#include "storage/milliseconds.h"

namespace vondle::storage {
namespace {

enum ExitCode { SUCCEEDED = 0, FAILED = 1, USAGE = 2 };

struct Arguments {
  std::string root;
  std::string listen = "127.0.0.1:0";
  std::vector<std::string> accounts;
  std::vector<std::string> quotas;
  std::string import;
  std::string publicUrl;
  std::int64_t urlLifetime = 3600;
};

int complain(int code, std::string_view text) {
  fmt::print(stderr, "vondle-storage: {}\n", text);
  return code;
}

// "name:rest", at the first colon.
std::optional<std::pair<std::string, std::string>> splitAtColon(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) return std::nullopt;
  return std::pair(text.substr(0, colon), text.substr(colon + 1));
}

class Program {
 public:
  explicit Program(Arguments arguments) : arguments_(std::move(arguments)) {}

  int run() {
    const auto colon = arguments_.listen.rfind(':');
    const auto port = colon == std::string::npos ? std::nullopt : countIn(arguments_.listen.substr(colon + 1));
    if (!port || *port > 65535) return complain(USAGE, "--listen takes ADDRESS:PORT, for example 127.0.0.1:8080");
    const HttpOptions http{
        .host = arguments_.listen.substr(0, colon), .port = static_cast<int>(*port), .publicUrl = arguments_.publicUrl};

    if (const int code = open(); code != SUCCEEDED) return code;
    if (const int code = setUpAccounts(); code != SUCCEEDED) return code;
    const auto contents = ContentStore::open(arguments_.root);
    if (!contents) return complain(FAILED, contents.error().localizedDescription());
    const auto secret = signingSecret();
    if (!secret) return complain(FAILED, secret.error().text);
    const SignedUrl signer(*secret, arguments_.urlLifetime);
    const auto thumbnailer = makeThumbnailer(*contents);
    ApiHandlers api(*stores_, *contents, signer, clock_, thumbnailer.get());
    ContentHandlers contentHandlers(*stores_, *contents, signer, clock_);
    api.tidy();
    if (const int code = import(*contents); code != SUCCEEDED) return code;

    // Before any thread starts, so that only the wait below takes them. Until here they simply end the process;
    // everything survives that.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    HttpServer server(http, api, contentHandlers);
    const auto bound = server.bind();
    if (!bound) return complain(FAILED, bound.error().localizedDescription());
    fmt::print("vondle-storage listening on http://{}:{}\n", http.host, *bound);
    if (std::fflush(stdout) != 0) return complain(FAILED, "cannot write to the standard output");

    bool served = false;
    std::thread serving([&] {
      served = server.run();
      if (!served) ::kill(::getpid(), SIGTERM);
    });
    int signal = 0;
    sigwait(&signals, &signal);
    server.stop();
    serving.join();
    return served ? SUCCEEDED : complain(FAILED, "the service stopped by itself");
  }

 private:
  // None when the program that makes previews is not installed beside this one.
  std::unique_ptr<Thumbnailer> makeThumbnailer(const ContentStore& contents) {
    const std::string helper = HelperPreviewRenderer::helperBesideProgram();
    if (::access(helper.c_str(), X_OK) != 0) {
      complain(SUCCEEDED, fmt::format("there is no {}; no previews are made", helper));
      return nullptr;
    }
    return std::make_unique<Thumbnailer>(*stores_, contents, clock_, std::make_unique<HelperPreviewRenderer>(helper));
  }

  int open() {
    if (::mkdir(arguments_.root.c_str(), 0700) != 0 && errno != EEXIST)
      return complain(FAILED, Error::posix(errno, "cannot make " + arguments_.root).localizedDescription());
    // Held until the process ends.
    const std::string lockPath = arguments_.root + "/lock";
    const int lock = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0) return complain(FAILED, Error::posix(errno, "cannot open " + lockPath).localizedDescription());
    if (::flock(lock, LOCK_EX | LOCK_NB) != 0)
      return complain(FAILED, fmt::format("another vondle-storage is running on {}", arguments_.root));
    auto stores = StorePool::open(arguments_.root + "/metadata.db");
    if (!stores) return complain(FAILED, stores.error().localizedDescription());
    stores_ = std::move(*stores);
    return SUCCEEDED;
  }

  int setUpAccounts() {
    auto store = stores_->writer();
    for (const auto& text : arguments_.accounts) {
      const auto parts = splitAtColon(text);
      if (!parts) return complain(USAGE, "--account takes NAME:KEYFILE");
      const auto key = readKeyFile(parts->second);
      if (!key) return complain(FAILED, key.error().localizedDescription());
      const auto account = setAccount(*store, parts->first, *key, now());
      if (!account) return complain(FAILED, account.error().text);
    }
    for (const auto& text : arguments_.quotas) {
      const auto parts = splitAtColon(text);
      const auto bytes = parts ? countIn(parts->second) : std::nullopt;
      if (!bytes) return complain(USAGE, "--quota takes NAME:BYTES");
      const auto done = store->write<bool>([&]() -> Answer<bool> {
        const auto account = store->accountNamed(parts->first);
        if (!account) return refuse(404, fmt::format("--quota: there is no account {}", parts->first));
        store->setQuota(account->id, *bytes == 0 ? std::nullopt : bytes);
        return true;
      });
      if (!done) return complain(FAILED, done.error().text);
    }
    return SUCCEEDED;
  }

  Answer<std::string> signingSecret() {
    auto store = stores_->writer();
    return store->write<std::string>([&]() -> Answer<std::string> {
      if (auto secret = store->setting("signing_secret")) return *secret;
      std::string secret = hexadecimal(randomBytes(32));
      store->set("signing_secret", secret);
      return secret;
    });
  }

  int import(const ContentStore& contents) {
    if (arguments_.import.empty()) return SUCCEEDED;
    const auto account = arguments_.accounts.empty() ? std::nullopt : splitAtColon(arguments_.accounts.front());
    if (!account) return complain(USAGE, "--import needs an --account to import into");
    auto store = stores_->writer();
    const auto report = importFolder(*store, contents, account->first, arguments_.import, now());
    if (!report) return complain(FAILED, "the import stopped: " + report.error().localizedDescription());
    fmt::print(stderr,
               "vondle-storage: imported {} files ({} bytes) and {} folders into {}; {} were there already, {} "
               "skipped\n",
               report->files, report->bytes, report->folders, account->first, report->kept, report->skipped);
    return SUCCEEDED;
  }

  [[nodiscard]] std::int64_t now() const { return millisecondsNow(clock_); }

  Arguments arguments_;
  LinuxClock clock_;
  std::unique_ptr<StorePool> stores_;
};

int parseAndRun(int argc, char** argv) {
  CLI::App app("The local storage service: keeps accounts, their files and their history of changes in one folder.",
               "vondle-storage");
  Arguments arguments;
  app.set_version_flag("--version", std::string("vondle-storage ") + VONDLE_VERSION);
  app.add_option("--root", arguments.root, "Folder of everything the service keeps; made when missing")
      ->required()
      ->type_name("DIR");
  app.add_option("--listen", arguments.listen, "Where to listen; port 0 takes a free one (default 127.0.0.1:0)")
      ->type_name("ADDRESS:PORT");
  app.add_option("--account", arguments.accounts,
                 "An account and the file that holds its key; makes the account or changes its key; may be repeated")
      ->type_name("NAME:KEYFILE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--quota", arguments.quotas, "Bytes that an account may hold; 0 takes the limit away; may be repeated")
      ->type_name("NAME:BYTES")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--import", arguments.import, "Copy this folder's tree into the first account; what is there stays")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory);
  app.add_option("--public-url", arguments.publicUrl, "Address that clients reach, when it is not the one they use")
      ->type_name("URL");
  app.add_option("--url-lifetime", arguments.urlLifetime, "How long addresses of contents are good (default 3600)")
      ->type_name("SECONDS")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{7 * 24 * 3600}));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? SUCCEEDED : USAGE;
  }
  while (arguments.publicUrl.ends_with('/')) arguments.publicUrl.pop_back();
  return Program(std::move(arguments)).run();
}

}  // namespace
}  // namespace vondle::storage

int main(int argc, char** argv) {
  return vondle::storage::parseAndRun(argc, argv);
}
