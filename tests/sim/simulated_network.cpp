#include "simulated_network.h"

#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "crash_points.h"

namespace vondle::sim {
namespace {

ScriptedReply noAnswer(std::int64_t code, const char* text) {
  return {.status = 0, .error = Error(URL_ERROR_DOMAIN, code, text)};
}

std::string_view endpointOf(const URLRequest& request) {
  std::string_view text = request.url;
  if (const auto slash = text.find("/vondle/"); slash != std::string_view::npos) text.remove_prefix(slash + 8);
  return text.substr(0, text.find("&signature"));
}

}  // namespace

void SimulatedNetwork::serve(ScriptedURLLoading& loading, Scheduler& scheduler) {
  queue_ = scheduler.makeSerialQueue("network");
  onTheWay_.clear();
  loading.onTask([this](ScriptedTask& task) {
    travel(task.shared_from_this());
    return true;
  });
}

Duration SimulatedNetwork::latency() {
  return seconds(0.0005 + random_.smallOf(weather.latency));
}

SimulatedNetwork::Fate SimulatedNetwork::draw(const URLRequest& request) {
  if (!random_.percent(weather.faults)) return Fate::served;
  switch (random_.below(10)) {
    case 0:
    case 1:
    case 2:
      return Fate::refused;
    case 3:
      return Fate::lostBefore;
    case 4:
    case 5:
    case 6:
      return Fate::lostAfter;
    case 7:
      return random_.oneIn(2) ? Fate::unanswered : Fate::unansweredAfter;
    case 8:
      return Fate::twice;
    default:
      return request.method == "GET" ? Fate::cut : Fate::lostAfter;
  }
}

void SimulatedNetwork::travel(std::shared_ptr<ScriptedTask> task) {
  if (onDeparture) onDeparture();
  URLRequest request = task->originalRequest();
  if (!task->uploadPath().empty() || request.body) request.body = task->sentBody();
  auto fate = draw(request);
  const bool isSafe =
      areCommitsSafe && (request.url.ends_with("/content-commit") || request.url.ends_with("/register"));
  if (isSafe && (fate == Fate::refused || fate == Fate::lostBefore || fate == Fate::unanswered)) fate = Fate::served;
  if (!isSafe && weather.outage < 0)
    return answerLater(task, noAnswer(URL_CANNOT_CONNECT_TO_HOST, "nobody is reached"));
  if (!isSafe && weather.outage > 0)
    return answerLater(task, {.status = weather.outage, .body = R"({"error":"not now"})"});
  if (fate == Fate::refused) {
    // What a server in trouble, or a proxy before it, says without having looked.
    constexpr std::array<int, 8> STATUSES = {401, 429, 500, 503, 507, 403, 404, 409};
    const int status = STATUSES[random_.below(isLying ? STATUSES.size() : STATUSES.size() - 3)];
    trace_.add("  net: {} {} refused: {}", request.method, endpointOf(request), status);
    return answerLater(task, {.status = status, .body = R"({"error":"not this time"})"});
  }
  if (fate == Fate::lostBefore) {
    trace_.add("  net: {} {} lost", request.method, endpointOf(request));
    return answerLater(task, noAnswer(URL_NETWORK_CONNECTION_LOST, "lost on the way"));
  }
  if (fate == Fate::unanswered) {
    trace_.add("  net: {} {} vanished", request.method, endpointOf(request));
    return;
  }
  const auto number = ++last_;
  onTheWay_.emplace(number, request);
  queue_->after(latency(), [this, number, fate, weak = std::weak_ptr(task), request = std::move(request)] {
    onTheWay_.erase(number);
    auto reply = arrive(request, fate == Fate::served ? "" : ", and its answer goes astray");
    const auto asker = weak.lock();
    if (!asker) return;
    switch (fate) {
      case Fate::twice:
        if (isLying && random_.oneIn(2))
          reply = arrive(request, " again");
        else
          arrive(request, " again");
        return answerLater(asker, std::move(reply));
      case Fate::lostAfter:
        return answerLater(asker, noAnswer(URL_NETWORK_CONNECTION_LOST, "the answer is lost"));
      case Fate::unansweredAfter:
        return;
      case Fate::cut:
        reply.announcedLength = static_cast<std::int64_t>(reply.body.size());
        reply.body.resize(reply.body.size() / 2);
        reply.error = Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "the answer is cut");
        return answerLater(asker, std::move(reply));
      default:
        return answerLater(asker, std::move(reply));
    }
  });
}

ScriptedReply SimulatedNetwork::arrive(const URLRequest& request, const char* how) {
  const CrashPoints::Elsewhere server;
  if (onArrival) onArrival(request);
  auto reply = storage_.answer(request);
  const bool hasWords = endpointOf(request).starts_with("api/") && request.method != "GET";
  trace_.add("  net: {} {}{}{}: {}{}", request.method, endpointOf(request), hasWords ? " " : "",
             hasWords ? request.body->substr(0, 120) : "", reply.status, how);
  return reply;
}

void SimulatedNetwork::answerLater(const std::shared_ptr<ScriptedTask>& task, ScriptedReply reply) {
  queue_->after(latency(), [weak = std::weak_ptr(task), reply = std::move(reply)]() mutable {
    if (const auto asker = weak.lock(); asker && !asker->isCompleted() && !asker->isCancelled())
      asker->reply(std::move(reply));
  });
}

void SimulatedNetwork::processDied() {
  for (auto& [number, request] : std::exchange(onTheWay_, {}))
    if (random_.oneIn(2)) ghosts_.emplace(number, std::move(request));
}

bool SimulatedNetwork::deliverGhost() {
  if (ghosts_.empty()) return false;
  const auto ghost =
      ghosts_.extract(std::next(ghosts_.begin(), static_cast<std::ptrdiff_t>(random_.below(ghosts_.size()))));
  const auto& request = ghost.mapped();
  const bool isDone = arrive(request, ", for a process that is dead").status == 200;
  // Contents of a new file make it, too.
  return isDone && request.method != "GET" && !request.url.ends_with("-urls") && !request.url.ends_with("-url");
}

}  // namespace vondle::sim
