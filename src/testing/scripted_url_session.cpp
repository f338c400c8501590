#include "testing/scripted_url_session.h"

#include <stdexcept>
#include <utility>

#include "platform/url.h"

namespace vondle {
namespace {

Error timedOut() {
  return {URL_ERROR_DOMAIN, URL_TIMED_OUT, "The request timed out."};
}
Error cancelledError() {
  return {URL_ERROR_DOMAIN, URL_CANCELLED, "cancelled"};
}

void require(bool condition, const char* whatIsWrong) {
  if (!condition) throw std::logic_error(std::string("scripted task: ") + whatIsWrong);
}

}  // namespace

struct ScriptedTask::Session {
  ScriptedURLLoading& loading;
  const URLSessionConfiguration configuration;
  URLSessionDelegate& delegate;
  const std::shared_ptr<Queue> queue;
  std::vector<std::shared_ptr<ScriptedTask>> tasks;  // that have not completed
  URLTaskID lastIdentifier = 0;
};

ScriptedTask::ScriptedTask(std::weak_ptr<Session> session, URLTaskID identifier, URLRequest request,
                           std::string uploadPath)
    : session_(std::move(session)),
      identifier_(identifier),
      request_(std::move(request)),
      uploadPath_(std::move(uploadPath)),
      sentBody_(request_.body.value_or("")) {}

const URLSessionConfiguration& ScriptedTask::configuration() const {
  const auto session = session_.lock();
  require(session != nullptr, "its session has ended");
  return session->configuration;
}

void ScriptedTask::resume() {
  const auto session = session_.lock();
  if (!session || ended_ || !suspended_) return;
  suspended_ = false;
  armIdleTimer(*session);
  if (!std::exchange(started_, true)) start(*session);
  schedule();
}

void ScriptedTask::suspend() {
  const auto session = session_.lock();
  if (!session || ended_) return;
  suspended_ = true;
  stopIdleTimer(*session);
}

void ScriptedTask::cancel() {
  if (ended_) return;
  cancelled_ = true;
  endSoon(cancelledError());
}

void ScriptedTask::start(Session& session) {
  if (!request_.url.starts_with("http://") && !request_.url.starts_with("https://"))
    return endSoon(Error(URL_ERROR_DOMAIN, URL_UNSUPPORTED_URL, "unsupported URL"));
  if (const auto address = parseURL(request_.url); !address || address->hasUser)
    return endSoon(Error(URL_ERROR_DOMAIN, URL_BAD_URL, "bad URL"));
  if (!uploadPath_.empty()) {
    auto bytes = session.loading.files_.read(uploadPath_);
    if (!bytes)
      return endSoon(Error(URL_ERROR_DOMAIN, URL_FILE_DOES_NOT_EXIST, "The file to upload could not be read.")
                         .withUnderlying(bytes.error()));
    sentBody_ = std::move(*bytes);
  }
  session.queue->after(session.configuration.timeoutForResource, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->endSoon(timedOut());
  });
  session.queue->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    const auto alive = self ? self->session_.lock() : nullptr;
    if (!alive || self->ended_ || self->finished_) return;
    if (alive->loading.taskHandler_ && alive->loading.taskHandler_(*self)) return;
    URLRequest onTheWire = self->request_;
    if (!self->uploadPath_.empty()) onTheWire.body = self->sentBody_;
    auto answer = alive->loading.answerOf(onTheWire);
    if (!answer) return;
    const Duration delay = answer->delay;
    if (delay <= Duration(0)) return self->reply(std::move(*answer));
    alive->queue->after(delay, [weak, answer = std::move(*answer)]() mutable {
      if (auto task = weak.lock()) task->reply(std::move(answer));
    });
  });
}

void ScriptedTask::respond(int status, std::vector<URLHeader> headers, std::int64_t announcedLength) {
  require(started_ || ended_, "answered before it was resumed");
  require(!answered_ && !finished_, "answered twice");
  answered_ = true;
  push(Answer{{.status = status,
               .url = request_.url,
               .headers = std::move(headers),
               .expectedContentLength = announcedLength}});
}

void ScriptedTask::data(std::string_view bytes) {
  require(answered_, "data before the answer");
  require(!finished_, "data after the end");
  if (!bytes.empty()) push(Data{std::string(bytes)});
}

void ScriptedTask::sent(std::int64_t bytes) {
  require(started_ || ended_, "its body was sent before it was resumed");
  require(!finished_, "its body was sent after the end");
  totalScriptedSent_ += bytes;
  require(totalScriptedSent_ <= static_cast<std::int64_t>(sentBody_.size()), "more was sent than the body has");
  push(Sent{bytes});
}

void ScriptedTask::finish() {
  require(answered_, "finished without an answer");
  require(!std::exchange(finished_, true), "finished twice");
  push(End{std::nullopt});
}

void ScriptedTask::fail(Error error) {
  require(started_ || ended_, "failed before it was resumed");
  require(!std::exchange(finished_, true), "failed after the end");
  push(End{std::move(error)});
}

void ScriptedTask::reply(ScriptedReply reply) {
  const auto unsent = static_cast<std::int64_t>(sentBody_.size()) - totalScriptedSent_;
  if (reply.status != 0) {
    if (unsent > 0) sent(unsent);
    respond(reply.status, std::move(reply.headers),
            reply.announcedLength.value_or(static_cast<std::int64_t>(reply.body.size())));
    data(reply.body);
  }
  if (reply.error)
    fail(std::move(*reply.error));
  else
    finish();
}

void ScriptedTask::push(Step step) {
  if (ended_) return;
  steps_.push_back(std::move(step));
  schedule();
}

void ScriptedTask::schedule() {
  const auto session = session_.lock();
  if (!session || scheduled_ || ended_ || suspended_ || steps_.empty() || session->loading.held_) return;
  scheduled_ = true;
  session->queue->post([weak = weak_from_this()] {
    if (auto self = weak.lock()) self->deliver();
  });
}

// One step at a time, so that a suspension or cancellation from within a delegate method keeps back the next.
void ScriptedTask::deliver() {
  scheduled_ = false;
  const auto session = session_.lock();
  if (!session || ended_ || suspended_ || steps_.empty() || session->loading.held_) return;
  Step step = std::move(steps_.front());
  steps_.pop_front();
  armIdleTimer(*session);
  if (auto* answer = std::get_if<Answer>(&step)) {
    if (session->delegate.didReceiveResponse(*this, answer->response) == ResponseDisposition::cancel) cancel();
  } else if (auto* data = std::get_if<Data>(&step)) {
    session->delegate.didReceiveData(*this, std::as_bytes(std::span(data->bytes)));
  } else if (auto* sent = std::get_if<Sent>(&step)) {
    totalSent_ += sent->bytes;
    session->delegate.didSendBodyData(*this, sent->bytes, totalSent_, static_cast<std::int64_t>(sentBody_.size()));
  } else {
    ended_ = true;
    error_ = std::move(std::get<End>(step).error);
    complete(*session);
  }
  schedule();
}

void ScriptedTask::armIdleTimer(Session& session) {
  stopIdleTimer(session);
  idleTimer_ = session.queue->after(request_.timeout.value_or(session.configuration.timeoutForRequest),
                                    [weak = weak_from_this()] {
                                      if (auto self = weak.lock()) self->endSoon(timedOut());
                                    });
}

void ScriptedTask::stopIdleTimer(Session& session) {
  if (idleTimer_ != 0) session.queue->cancel(std::exchange(idleTimer_, 0));
}

void ScriptedTask::endSoon(std::optional<Error> error) {
  const auto session = session_.lock();
  if (!session || std::exchange(ended_, true)) return;
  error_ = std::move(error);
  session->queue->post([self = shared_from_this()] {
    if (const auto alive = self->session_.lock()) self->complete(*alive);
  });
}

void ScriptedTask::complete(Session& session) {
  if (std::exchange(completed_, true)) return;
  stopIdleTimer(session);
  steps_.clear();
  const auto self = shared_from_this();
  std::erase(session.tasks, self);
  session.delegate.didComplete(*this, error_);
}

class ScriptedURLLoading::SessionHandle final : public URLSession {
 public:
  explicit SessionHandle(std::shared_ptr<ScriptedTask::Session> session) : session_(std::move(session)) {}

  ~SessionHandle() override {
    const auto tasks = session_->tasks;
    for (const auto& task : tasks) {
      if (!task->ended_) task->error_ = cancelledError();
      task->ended_ = true;
      task->complete(*session_);
    }
  }

  std::shared_ptr<URLSessionTask> dataTask(URLRequest request) override {
    return session_->loading.add(session_, std::move(request), {});
  }
  std::shared_ptr<URLSessionTask> uploadTask(URLRequest request, std::string path) override {
    require(!path.empty() && !request.body, "an upload task takes a path and no body");
    return session_->loading.add(session_, std::move(request), std::move(path));
  }

 private:
  const std::shared_ptr<ScriptedTask::Session> session_;
};

ScriptedURLLoading::ScriptedURLLoading(Scheduler& scheduler, Files& files) : scheduler_(scheduler), files_(files) {}

ScriptedURLLoading::~ScriptedURLLoading() = default;

std::unique_ptr<URLSession> ScriptedURLLoading::makeSession(URLSessionConfiguration configuration,
                                                            URLSessionDelegate& delegate) {
  return std::make_unique<SessionHandle>(std::make_shared<ScriptedTask::Session>(
      *this, configuration, delegate, scheduler_.makeSerialQueue("scripted URL session"),
      std::vector<std::shared_ptr<ScriptedTask>>()));
}

void ScriptedURLLoading::onRequest(Handler handler) {
  handlers_.push_back(std::move(handler));
}

void ScriptedURLLoading::onRequest(std::string prefix, Handler handler) {
  onRequest([prefix = std::move(prefix), handler = std::move(handler)](const URLRequest& request) {
    return request.url.starts_with(prefix) ? handler(request) : std::nullopt;
  });
}

void ScriptedURLLoading::onTask(TaskHandler handler) {
  taskHandler_ = std::move(handler);
}

void ScriptedURLLoading::hold() {
  held_ = true;
}

void ScriptedURLLoading::release() {
  held_ = false;
  for (const auto& task : tasks_) task->schedule();
}

std::vector<std::shared_ptr<ScriptedTask>> ScriptedURLLoading::running() const {
  std::vector<std::shared_ptr<ScriptedTask>> found;
  for (const auto& task : tasks_)
    if (task->started_ && !task->completed_) found.push_back(task);
  return found;
}

ScriptedTask& ScriptedURLLoading::task(std::string_view urlPart) const {
  for (auto task = tasks_.rbegin(); task != tasks_.rend(); ++task)
    if ((*task)->url().find(urlPart) != std::string::npos) return **task;
  throw std::logic_error("no task has an address with " + std::string(urlPart));
}

std::shared_ptr<ScriptedTask> ScriptedURLLoading::add(const std::shared_ptr<ScriptedTask::Session>& session,
                                                      URLRequest request, std::string uploadPath) {
  std::shared_ptr<ScriptedTask> task(
      new ScriptedTask(session, ++session->lastIdentifier, std::move(request), std::move(uploadPath)));
  session->tasks.push_back(task);
  tasks_.push_back(task);
  return task;
}

std::optional<ScriptedReply> ScriptedURLLoading::answerOf(const URLRequest& request) const {
  for (auto handler = handlers_.rbegin(); handler != handlers_.rend(); ++handler)
    if (auto answer = (*handler)(request)) return answer;
  return std::nullopt;
}

}  // namespace vondle
