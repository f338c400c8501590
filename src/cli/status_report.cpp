#include "cli/status_report.h"

#include <fmt/format.h>

#include "base/byte_size.h"
#include "cli/sending_words.h"
#include "cli/service_connection.h"
#include "cli/transfer_settings.h"
#include "cli/words.h"

namespace vondle {

namespace {

// Rates that were published longer ago are of transfers that have ended.
constexpr double RATES_LAST = 5;

constexpr std::string_view keyPlaceText(KeyPlace place) {
  switch (place) {
    case KeyPlace::keyring:
      return "key in the keyring";
    case KeyPlace::file:
      return "key in the configuration file";
    case KeyPlace::nowhere:
      break;
  }
  return "no key; sign in with \"vondle login\"";
}

std::string agoText(Timestamp now, double when) {
  return durationInWords(seconds(std::max(0.0, now.secondsSince1970 - when))) + " ago";
}

class Lines {
 public:
  explicit Lines(const Console& console) : console_(console) {}

  void heading(std::string_view title, std::string_view text) {
    text_ += fmt::format("{}{:<{}}{}\n", console_.heading(title), "",
                         std::max<int>(1, 12 - static_cast<int>(title.size())), text);
  }
  void item(std::string_view text) { text_ += fmt::format("  {}\n", text); }

  std::string take() {
    if (text_.ends_with('\n')) text_.pop_back();
    return std::move(text_);
  }

 private:
  const Console& console_;
  std::string text_;
};

std::string keptText(const json::Object& kept) {
  const auto count = [&](std::string_view key) { return json::integer(kept, key).value_or(0); };
  auto text = countInWords(count("items"), "item", "items") + " downloaded";
  if (count("waiting") > 0) text += fmt::format(", {} to come", count("waiting"));
  if (count("failing") > 0) text += fmt::format(", {} failed", count("failing"));
  return text;
}

std::string cacheText(const json::Object& cache) {
  const auto size = [&](std::string_view key) {
    return sizeInWords(static_cast<double>(json::integer(cache, key).value_or(0)));
  };
  auto text = fmt::format("{} of {} used for files that were read, {} for kept ones", size("bytes"), size("limit"),
                          size("kept_bytes"));
  if (json::integer(cache, "disk_free"))
    text += fmt::format("; {} free on the disk, {} to stay so", size("disk_free"), size("disk_reserve"));
  return text;
}

std::string editsText(const json::Object& edits) {
  const auto count = [&](std::string_view key) { return json::integer(edits, key).value_or(0); };
  const auto local = count("local");
  const auto total = count("total") - local;
  std::string text = total == 0 ? "all on the server" : fmt::format("{} not on the server yet", total);
  if (count("sending") > 0) text += fmt::format(", {} being sent", count("sending"));
  if (count("failing") > 0) text += fmt::format(", {} failed", count("failing"));
  if (local > 0)
    text += fmt::format("; {}", countInWords(local, "file with a temporary name", "files with temporary names"));
  return text;
}

std::string transferText(const Console& console, const json::Object& transfer) {
  const auto done = static_cast<double>(json::integer(transfer, "completed").value_or(0));
  const auto all = static_cast<double>(json::integer(transfer, "total").value_or(0));
  const auto percent = all > 0 ? fmt::format("{:3.0f} %", 100 * done / all) : std::string("    %");
  return fmt::format("{} {}  {} of {}  {}", json::text(transfer, "direction").value_or("down"), percent,
                     sizeInWords(done), sizeInWords(all), console.shown(json::text(transfer, "path").value_or("?")));
}

}  // namespace

StatusReport StatusReport::gather(const CommandContext& context) {
  StatusReport report;
  report.now_ = context.platform.clock.now();
  if (auto service = ServiceConnection::open(context.folders.socket()); !service) {
    report.whyNotRunning_ = service.error();
  } else if (auto status = service->ask({{"command", "status"}}, seconds(10)); !status) {
    report.whyNotRunning_ = status.error();
  } else {
    report.service_ = std::move(*status);
  }
  if (const auto account = context.account().summary())
    report.account_ = *account;
  else
    report.configurationError_ = account.error().localizedDescription();
  report.settings_ = TransferSettings::from(context.config().read().value_or(json::Object())).toJSON();

  auto& files = context.platform.files;
  if (const auto container = files.applicationGroupContainer(APPLICATION_GROUP)) {
    const auto bytes = files.read(*container + "/stats.json");
    if (const auto rates = bytes ? json::parseObject(*bytes) : std::nullopt) {
      const auto age = report.now_.secondsSince1970 - json::number(*rates, "at").value_or(0);
      if (age >= 0 && age <= RATES_LAST) {
        report.downRate_ = json::number(*rates, "down_bps").value_or(0);
        report.upRate_ = json::number(*rates, "up_bps").value_or(0);
      }
    }
  }
  return report;
}

json::Object StatusReport::toJSON() const {
  json::Object object{{"running", isRunning()}};
  if (service_) object["service"] = *service_;
  json::Object account;
  if (account_ && account_->server) account["server"] = *account_->server;
  if (account_) {
    account["key"] = account_->key == KeyPlace::keyring ? "keyring" : account_->key == KeyPlace::file ? "file" : "none";
  }
  if (!configurationError_.empty()) account["error"] = configurationError_;
  object["account"] = account;
  object["rates"] = json::Object{{"down_bps", downRate_}, {"up_bps", upRate_}};
  object["limits"] = settings_;
  return object;
}

std::string StatusReport::accountText() const {
  if (!account_) return configurationError_;
  if (!account_->server) return "none; sign in with \"vondle login\"";
  return fmt::format("{} ({})", *account_->server, keyPlaceText(account_->key));
}

std::string StatusReport::changesText() const {
  const auto* follow = json::object(*service_, "follow");
  if (!follow) return "unknown";
  std::string text;
  if (const auto when = json::number(*follow, "last_success")) {
    text = fmt::format("up to {}, {}", json::text(*follow, "anchor").value_or("?"), agoText(now_, *when));
  } else {
    text = "not read yet";
  }
  if (json::boolean(*follow, "running") == true)
    text += "; reading now";
  else if (const auto next = json::number(*follow, "next_in"))
    text += "; again in " + durationInWords(seconds(*next));
  return text;
}

std::string StatusReport::toText(const Console& console) const {
  Lines lines(console);
  if (service_) {
    lines.heading("Vondle", fmt::format("mounted at {}{}, process {}, for {}",
                                        console.shown(json::text(*service_, "mount").value_or("?")),
                                        json::boolean(*service_, "read_only") == true ? " (read-only)" : "",
                                        json::integer(*service_, "pid").value_or(0),
                                        durationInWords(seconds(json::number(*service_, "uptime").value_or(0)))));
  } else {
    lines.heading("Vondle", console.warning(whyNotRunning_.message));
  }
  lines.heading("Account", console.shown(accountText()));
  if (service_) {
    lines.heading("Changes", console.shown(changesText()));
    if (const auto* follow = json::object(*service_, "follow")) {
      if (const auto error = json::text(*follow, "error")) lines.item(console.warning(console.shown(*error)));
    }
    lines.heading("Items",
                  fmt::format("{} known, {} here ({})", json::integer(*service_, "items").value_or(0),
                              countInWords(json::integer(*service_, "files_here").value_or(0), "file", "files"),
                              sizeInWords(static_cast<double>(json::integer(*service_, "bytes_here").value_or(0)))));
    if (const auto* cache = json::object(*service_, "cache")) lines.heading("Disk", cacheText(*cache));
    if (const auto* kept = json::object(*service_, "kept"); kept && json::integer(*kept, "items").value_or(0) > 0)
      lines.heading("Kept", keptText(*kept));
    if (const auto* edits = json::object(*service_, "edits")) {
      lines.heading("Edits", editsText(*edits));
      if (const auto lost = json::integer(*edits, "lost").value_or(0); lost > 0) {
        lines.item(console.warning(fmt::format(
            "contents of {} that are not remembered are in {}; look through them and move them away",
            countInWords(lost, "change", "changes"), console.shown(json::text(*edits, "lost_in").value_or("?")))));
      }
      if (const auto* list = json::listOfObjects(*edits, "list")) {
        for (const auto& each : *list) {
          const auto& edit = each.get_object();
          lines.item(fmt::format("{}: {}, {}", console.shown(json::text(edit, "path").value_or("?")),
                                 json::text(edit, "what").value_or("?"), sendingInWords(edit, now_)));
          if (const auto error = json::text(edit, "error")) lines.item("  " + console.warning(console.shown(*error)));
        }
      }
    }
    const auto* transfers = json::listOfObjects(*service_, "transfers");
    lines.heading("Transfers", transfers && !transfers->empty() ? std::to_string(transfers->size()) : "none");
    if (transfers) {
      for (const auto& transfer : *transfers) lines.item(transferText(console, transfer.get_object()));
    }
  }
  lines.heading("Rates", fmt::format("down {}/s, up {}/s", sizeInWords(downRate_), sizeInWords(upRate_)));
  const auto settings = TransferSettings::from(settings_);
  lines.heading("Limits", fmt::format("down {}, up {}, {} at once{}", limitInWords(settings.downloadKilobytes),
                                      limitInWords(settings.uploadKilobytes),
                                      countInWords(settings.transfers, "transfer", "transfers"),
                                      settings.paused ? console.warning("; all paused") : ""));
  if (service_) {
    const auto* names = json::listOfObjects(*service_, "names");
    const auto* errors = json::listOfObjects(*service_, "errors");
    const auto count =
        json::integer(*service_, "names_total").value_or(0) + static_cast<std::int64_t>(errors ? errors->size() : 0);
    lines.heading("Problems", count == 0 ? "none" : console.warning(std::to_string(count)));
    if (names) {
      for (const auto& each : *names) {
        const auto& name = each.get_object();
        lines.item(fmt::format("{} stands for \"{}\" ({})", console.shown(json::text(name, "path").value_or("?")),
                               console.shown(json::text(name, "server_name").value_or("?")),
                               json::text(name, "reason").value_or("?")));
      }
    }
    if (errors) {
      for (const auto& each : *errors) {
        const auto& error = each.get_object();
        lines.item(fmt::format("{}: {} ({})", console.shown(json::text(error, "path").value_or("?")),
                               console.shown(json::text(error, "error").value_or("?")),
                               agoText(now_, json::number(error, "at").value_or(now_.secondsSince1970))));
      }
    }
  }
  return lines.take();
}

}  // namespace vondle
