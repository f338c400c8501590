#include "transfer/throttled_transfer.h"

#include <utility>

#include "base/shared_instance.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

void prepare(Progress& progress, FileOperationKind kind, std::int64_t size) {
  ThrottledTransfer::describe(progress, kind);
  if (size >= 1) progress.setTotalUnitCount(size);
}

}  // namespace

ThrottledTransfer& ThrottledTransfer::shared() {
  return SharedInstance<ThrottledTransfer>::current();
}

ThrottledTransfer::ThrottledTransfer(const TransferServices& services)
    : services_(services), engine_(std::make_shared<TransferEngine>(services)) {}

ThrottledTransfer::~ThrottledTransfer() {
  engine_->shutDown();
}

void ThrottledTransfer::describe(Progress& progress, FileOperationKind kind) {
  progress.setKind(ProgressKind::file, kind);
  progress.setCancellable(true);
  progress.setPausable(true);
}

void ThrottledTransfer::download(std::string url, std::shared_ptr<Progress> progress, std::int64_t size, int priority,
                                 Completion<Result<std::string>> completion) {
  services_.limits.refresh();
  if (progress) prepare(*progress, FileOperationKind::downloading, size);
  auto job = std::make_shared<TransferJob>();
  job->kind = TransferJob::Kind::download;
  job->priority = priority;
  job->progress = std::move(progress);
  job->task = engine_->session().dataTask({.url = std::move(url)});
  job->completion.emplace([done = std::move(completion)](Result<TransferOutcome> result) mutable {
    if (!result) return std::move(done)(failure(std::move(result.error())));
    if (!result->destination) return std::move(done)(failure(TransferError::noResponse()));
    std::move(done)(std::move(*result->destination));
  });
  engine_->start(job);
}

void ThrottledTransfer::fetchData(std::string url, Completion<Result<std::string>> completion) {
  services_.limits.refresh();
  auto job = std::make_shared<TransferJob>();
  job->kind = TransferJob::Kind::fetch;
  job->task = engine_->session().dataTask({.url = std::move(url)});
  job->completion.emplace([done = std::move(completion)](Result<TransferOutcome> result) mutable {
    if (!result) return std::move(done)(failure(std::move(result.error())));
    std::move(done)(std::move(result->body));
  });
  engine_->start(job);
}

void ThrottledTransfer::upload(URLRequest request, std::string file, std::shared_ptr<Progress> progress,
                               Completion<Result<std::string>> completion) {
  const std::int64_t size = sizeOf(file);
  services_.limits.refresh();
  services_.largeUpload.started(size);
  submitUpload(std::move(request), std::move(file), size, std::move(progress),
               [done = std::move(completion)](Result<TransferOutcome> result) mutable {
                 if (!result) return std::move(done)(failure(std::move(result.error())));
                 std::move(done)(std::move(result->body));
               });
}

void ThrottledTransfer::uploadPart(URLRequest request, std::string file, std::shared_ptr<Progress> progress,
                                   Completion<Result<std::string>> completion) {
  const std::int64_t size = sizeOf(file);
  services_.limits.refresh();
  submitUpload(std::move(request), std::move(file), size, std::move(progress),
               [done = std::move(completion)](Result<TransferOutcome> result) mutable {
                 if (!result) return std::move(done)(failure(std::move(result.error())));
                 if (!result->etag) return std::move(done)(failure(TransferError::noResponse()));
                 std::move(done)(std::move(*result->etag));
               });
}

void ThrottledTransfer::submitUpload(URLRequest request, std::string file, std::int64_t size,
                                     std::shared_ptr<Progress> progress,
                                     Completion<Result<TransferOutcome>> completion) {
  if (progress) prepare(*progress, FileOperationKind::uploading, size);
  auto job = std::make_shared<TransferJob>();
  job->kind = TransferJob::Kind::upload;
  job->progress = std::move(progress);
  job->task = engine_->session().uploadTask(std::move(request), std::move(file));
  job->completion.emplace(std::move(completion));
  engine_->start(job);
}

std::int64_t ThrottledTransfer::sizeOf(const std::string& file) const {
  const auto attributes = services_.files.attributes(file);
  return attributes ? attributes->size : 0;
}

}  // namespace vondle
