#include "kernel.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

namespace vondle {

// The double of the kernel's end of a request: whoever asked is answered on the programs' queue.
class FuseChannel {
 public:
  explicit FuseChannel(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

  void* add(sim::Kernel::Then then) {
    waiting_[++last_] = {std::move(then), nullptr};
    return reinterpret_cast<void*>(last_);
  }
  void answer(void* request, sim::KernelAnswer answer) {
    auto found = waiting_.extract(reinterpret_cast<std::uintptr_t>(request));
    queue_->post(
        [then = std::move(found.mapped().then), answer = std::move(answer)]() mutable { then(std::move(answer)); });
  }
  void onInterrupt(void* request, std::function<void()> interrupted) {
    waiting_.at(reinterpret_cast<std::uintptr_t>(request)).interrupted = std::move(interrupted);
  }
  void interruptAll() {
    std::vector<std::function<void()>> calls;
    for (auto& [number, call] : waiting_)
      if (call.interrupted) calls.push_back(std::exchange(call.interrupted, nullptr));
    for (auto& call : calls) queue_->post([call = std::move(call)] { call(); });
  }

 private:
  struct Call {
    sim::Kernel::Then then;
    std::function<void()> interrupted;
  };
  const std::shared_ptr<Queue> queue_;
  std::map<std::uintptr_t, Call> waiting_;
  std::uintptr_t last_ = 0;
};

bool FolderPage::add(const std::string&, const NodeAttributes&, std::int64_t) {
  return true;
}

FuseRequest::FuseRequest(std::shared_ptr<FuseChannel> channel, void* request)
    : channel_(std::move(channel)), request_(request) {}

FuseRequest::FuseRequest(FuseRequest&& other) noexcept
    : channel_(std::move(other.channel_)),
      request_(std::exchange(other.request_, nullptr)),
      interruptKey_(std::exchange(other.interruptKey_, 0)) {}

FuseRequest::~FuseRequest() {
  if (request_) std::move(*this).fail(EIO);
}

void* FuseRequest::take() {
  return std::exchange(request_, nullptr);
}

void FuseRequest::fail(int errorNumber) && {
  channel_->answer(take(), {.error = errorNumber});
}

void FuseRequest::succeed() && {
  channel_->answer(take(), {});
}

void FuseRequest::answerEntry(const NodeAttributes& attributes) && {
  channel_->answer(take(), {.node = attributes});
}

void FuseRequest::answerNoEntry() && {
  channel_->answer(take(), {.error = ENOENT});
}

void FuseRequest::answerAttributes(const NodeAttributes& attributes) && {
  channel_->answer(take(), {.node = attributes});
}

void FuseRequest::answerOpenedFolder(std::uint64_t handle) && {
  channel_->answer(take(), {.handle = handle});
}

void FuseRequest::answerOpenedFile(bool, bool) && {
  channel_->answer(take(), {});
}

int FuseRequest::pid() const {
  return 1;
}

void FuseRequest::answerCreatedFile(const NodeAttributes& attributes, bool) && {
  channel_->answer(take(), {.node = attributes});
}

void FuseRequest::answerContents(const ContentFile& file, std::int64_t offset, std::size_t size) && {
  answerRange(file.descriptor(), file.size(), offset, size);
}

void FuseRequest::answerContents(const EditedFile& file, std::int64_t offset, std::size_t size) && {
  answerRange(file.descriptor(), file.size(), offset, size);
}

void FuseRequest::answerRange(int descriptor, std::int64_t, std::int64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  const auto count = ::pread(descriptor, bytes.data(), bytes.size(), offset);
  if (count < 0) return std::move(*this).fail(errno);
  bytes.resize(static_cast<std::size_t>(count));
  channel_->answer(take(), {.bytes = std::move(bytes)});
}

void FuseRequest::answerBytes(std::string_view bytes) && {
  channel_->answer(take(), {.bytes = std::string(bytes)});
}

void FuseRequest::answerWritten(std::size_t bytes) && {
  channel_->answer(take(), {.written = bytes});
}

void FuseRequest::answerFolder(const FolderPage&) && {
  channel_->answer(take(), {});
}

void FuseRequest::answerAttribute(std::string_view value, std::size_t) && {
  channel_->answer(take(), {.bytes = std::string(value)});
}

void FuseRequest::answerStatistics(const SpaceStatistics&) && {
  channel_->answer(take(), {});
}

void FuseRequest::onInterrupt(std::function<void()> interrupted) {
  channel_->onInterrupt(request_, std::move(interrupted));
}

namespace sim {

Kernel::Kernel(std::shared_ptr<FuseHandler> handler, Scheduler& scheduler)
    : handler_(std::move(handler)), channel_(std::make_shared<FuseChannel>(scheduler.makeSerialQueue("programs"))) {}

FuseRequest Kernel::request(Then then) {
  return {channel_, channel_->add(std::move(then))};
}

void Kernel::lookup(Inode folder, std::string name, Then then) {
  handler_->lookup(request(std::move(then)), folder, std::move(name));
}
void Kernel::open(Inode inode, OpenMode mode, Then then) {
  handler_->open(request(std::move(then)), inode, mode);
}
void Kernel::read(Inode inode, std::int64_t offset, std::size_t size, Then then) {
  handler_->read(request(std::move(then)), inode, offset, size);
}
void Kernel::flush(Inode inode, Then then) {
  handler_->flush(request(std::move(then)), inode);
}
void Kernel::release(Inode inode, OpenMode mode, Then then) {
  handler_->release(request(std::move(then)), inode, mode);
}
void Kernel::list(Inode folder, Then then) {
  handler_->openFolder(request([this, then = std::move(then)](KernelAnswer opened) mutable {
                         if (opened.error == 0) handler_->releaseFolder(request([](auto&&) {}), opened.handle);
                         then(std::move(opened));
                       }),
                       folder);
}
void Kernel::create(Inode folder, std::string name, bool mayExist, Then then) {
  handler_->create(request(std::move(then)), folder, std::move(name), 0600, {.writes = true}, mayExist);
}
void Kernel::makeFolder(Inode folder, std::string name, Then then) {
  handler_->makeFolder(request(std::move(then)), folder, std::move(name), 0700);
}
void Kernel::removeFile(Inode folder, std::string name, Then then) {
  handler_->removeFile(request(std::move(then)), folder, std::move(name));
}
void Kernel::removeFolder(Inode folder, std::string name, Then then) {
  handler_->removeFolder(request(std::move(then)), folder, std::move(name));
}
void Kernel::rename(Inode folder, std::string name, Inode toFolder, std::string toName, bool mayReplace, Then then) {
  handler_->rename(request(std::move(then)), folder, std::move(name), toFolder, std::move(toName), mayReplace);
}
void Kernel::change(Inode inode, const AttributeChange& change, Then then) {
  handler_->change(request(std::move(then)), inode, change);
}
void Kernel::write(Inode inode, std::string_view data, std::int64_t offset, Then then) {
  handler_->write(request(std::move(then)), inode, data, offset, false);
}
void Kernel::sync(Inode inode, Then then) {
  handler_->sync(request(std::move(then)), inode);
}

void Kernel::interruptAll() {
  channel_->interruptAll();
}

}  // namespace sim
}  // namespace vondle
