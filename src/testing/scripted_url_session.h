#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/files.h"
#include "platform/scheduler.h"
#include "platform/url_session.h"

namespace vondle {

// A server's whole answer to one request.
struct ScriptedReply {
  int status = 200;  // 0: no answer at all, only the error
  std::string body{};
  std::vector<URLHeader> headers{};
  std::optional<std::int64_t> announcedLength{};  // absent: the body's; -1: none is announced
  std::optional<Error> error{};                   // what the task ends with after the body, in place of success
  Duration delay{0};                              // before the first byte of it
};

class ScriptedURLLoading;

// A task whose server is the test: it says what the server does, one step after the other, and the task's delegate
// is told on the session's queue. A step is kept back while the task is suspended or the loading holds its answers.
// Steps that no server could take (an answer before the request is out, two answers, data without an answer, anything
// after the end) throw std::logic_error; steps after a cancellation or a time-out are ignored, as a late server's are.
class ScriptedTask final : public URLSessionTask, public std::enable_shared_from_this<ScriptedTask> {
 public:
  URLTaskID identifier() const override { return identifier_; }
  const URLRequest& originalRequest() const override { return request_; }
  void resume() override;
  void suspend() override;
  void cancel() override;

  const std::string& url() const { return request_.url; }
  const std::string& uploadPath() const { return uploadPath_; }  // empty for a data task
  // What goes out as the body: the request's own, or the bytes that the file has at the first resume.
  const std::string& sentBody() const { return sentBody_; }
  const URLSessionConfiguration& configuration() const;

  bool isStarted() const { return started_; }
  bool isSuspended() const { return suspended_; }  // also before the first resume
  bool isCancelled() const { return cancelled_; }
  bool isCompleted() const { return completed_; }  // the delegate has been told

  void respond(int status, std::vector<URLHeader> headers = {}, std::int64_t announcedLength = -1);
  void data(std::string_view bytes);
  void sent(std::int64_t bytes);  // so many more bytes of the body have gone out
  void finish();
  void fail(Error error);
  void reply(ScriptedReply reply);  // all of the body goes out, then all of this comes in

 private:
  friend class ScriptedURLLoading;
  struct Session;
  struct Answer {
    URLResponse response;
  };
  struct Data {
    std::string bytes;
  };
  struct Sent {
    std::int64_t bytes;
  };
  struct End {
    std::optional<Error> error;
  };
  using Step = std::variant<Answer, Data, Sent, End>;

  ScriptedTask(std::weak_ptr<Session> session, URLTaskID identifier, URLRequest request, std::string uploadPath);

  void start(Session& session);
  void push(Step step);
  void schedule();
  void deliver();
  void armIdleTimer(Session& session);
  void stopIdleTimer(Session& session);
  void endSoon(std::optional<Error> error);
  void complete(Session& session);

  const std::weak_ptr<Session> session_;
  const URLTaskID identifier_;
  const URLRequest request_;
  const std::string uploadPath_;
  std::string sentBody_;
  bool started_ = false;
  bool suspended_ = true;
  bool cancelled_ = false;
  bool ended_ = false;  // nothing more is delivered but the end
  bool completed_ = false;
  std::optional<Error> error_;

  bool answered_ = false;  // as the script has it, delivered or not
  bool finished_ = false;
  std::int64_t totalSent_ = 0;  // as delivered
  std::int64_t totalScriptedSent_ = 0;
  std::deque<Step> steps_;
  bool scheduled_ = false;
  TimerID idleTimer_ = 0;
};

// Sessions without a network, in the time of the scheduler given, for one thread. Every task made is listed, and waits
// until the test or a handler answers it. Stricter than a real session: see ScriptedTask. The time-outs are those of
// the configuration: idle time does not count while a task is suspended, the whole of a task does. Redirects do not
// happen and lengths are not compared: what the script says is what the delegate is told.
class ScriptedURLLoading final : public URLLoading {
 public:
  using Handler = std::function<std::optional<ScriptedReply>(const URLRequest&)>;

  ScriptedURLLoading(Scheduler& scheduler, Files& files);
  ~ScriptedURLLoading() override;

  std::unique_ptr<URLSession> makeSession(URLSessionConfiguration configuration, URLSessionDelegate& delegate) override;

  // Asked on the session's queue when a task starts, the latest handler first; none: the next one, at last the test.
  // The request's body is what goes out, also when it comes from a file.
  void onRequest(Handler handler);
  // The same for addresses that begin with this.
  void onRequest(std::string prefix, Handler handler);

  // Asked before the handlers; true: it answers the task by itself, now or later.
  using TaskHandler = std::function<bool(ScriptedTask&)>;
  void onTask(TaskHandler handler);

  // While held, no task is told anything but its cancellation or time-out; release lets all of it go.
  void hold();
  void release();

  const std::vector<std::shared_ptr<ScriptedTask>>& tasks() const { return tasks_; }
  // Those that have started and not completed, in the order they were made.
  std::vector<std::shared_ptr<ScriptedTask>> running() const;
  // The latest task whose address contains the text; throws std::logic_error when there is none.
  ScriptedTask& task(std::string_view urlPart) const;

 private:
  friend class ScriptedTask;
  class SessionHandle;

  std::shared_ptr<ScriptedTask> add(const std::shared_ptr<ScriptedTask::Session>& session, URLRequest request,
                                    std::string uploadPath);
  std::optional<ScriptedReply> answerOf(const URLRequest& request) const;

  Scheduler& scheduler_;
  Files& files_;
  std::vector<Handler> handlers_;
  TaskHandler taskHandler_;
  std::vector<std::shared_ptr<ScriptedTask>> tasks_;
  bool held_ = false;
};

}  // namespace vondle
