#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "storage/content_store.h"
#include "storage/receiver.h"
#include "storage/refusal.h"
#include "storage/signed_url.h"
#include "storage/store_pool.h"
#include "storage/uploads.h"

namespace vondle::storage {

// A request to a signed address.
struct ContentRequest {
  std::string method = {};
  std::string path = {};
  std::multimap<std::string, std::string> query;
  bool hasApiKey = false;
};

// What is sent back for a GET or HEAD of contents.
struct Download {
  std::unique_ptr<StoredFile> file = {};
  std::string contentType = {};
  std::string etag = {};  // with its quotes
};

// Which bytes of `size` a Range header asks for: first and last, both included. Absent when there is no such header or
// it is of a form that is not served (several ranges), so that everything is sent; 416 when nothing of it exists.
Answer<std::optional<std::pair<std::int64_t, std::int64_t>>> rangeOf(std::string_view header, std::int64_t size);

// Answers requests to signed addresses: GET of contents and previews, PUT of contents, parts and previews. Any thread.
class ContentHandlers {
 public:
  ContentHandlers(StorePool& stores, const ContentStore& contents, const SignedUrl& signer, const Clock& clock)
      : stores_(stores), contents_(contents), signer_(signer), clock_(clock) {}

  Answer<Download> download(const ContentRequest& request);
  // `length`: of the body, as announced by its header; 411 without.
  Answer<std::unique_ptr<Receiver>> upload(const ContentRequest& request, std::optional<std::int64_t> length,
                                           std::string_view contentType);

 private:
  class WholeReceiver;
  class RepeatReceiver;
  class PartReceiver;
  class ThumbReceiver;
  using Receiving = Answer<std::unique_ptr<Receiver>>;

  // 400 for a key in the header, 403 unless the address was signed by the service and has not expired.
  [[nodiscard]] Answer<void> check(const ContentRequest& request) const;
  // Runs `work` in one transaction, with the upload of the key and the uploads of the account that asked for it.
  template <class T>
  Answer<T> withUpload(const std::string& key, const std::function<Answer<T>(MetadataStore&, Uploads&, Upload&)>& work);

  Receiving receive(const ContentRequest& request, std::optional<std::int64_t> length, std::string_view contentType);
  Receiving receiveThumb(std::string_view key, std::int64_t length, std::string_view contentType);
  Receiving receiveWhole(const std::string& key, std::int64_t length);
  Receiving receivePart(const std::string& key, std::int64_t number, std::int64_t length);
  // The part's bytes are about to be overwritten: from now on it counts as not sent.
  Answer<std::unique_ptr<ContentStore::IncomingPart>> beginPart(MetadataStore& store, const Upload& upload,
                                                                std::int64_t number) const;
  // All bytes of the part are there; answers its tag.
  Answer<std::string> keepPart(const std::string& key, std::int64_t number, ContentStore::IncomingPart& part);

  StorePool& stores_;
  const ContentStore& contents_;
  const SignedUrl& signer_;
  const Clock& clock_;
};

}  // namespace vondle::storage
