#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/json.h"
#include "platform/clock.h"
#include "storage/content_store.h"
#include "storage/entry_json.h"
#include "storage/signed_url.h"
#include "storage/store_pool.h"
#include "storage/thumbnailer.h"
#include "storage/tree.h"
#include "storage/uploads.h"

namespace vondle::storage {

// Longest body of a request that is no contents.
inline constexpr std::size_t MAX_API_BODY = 1024 * 1024;
// Changes per page.
inline constexpr std::int64_t MAX_CHANGES = 10000;
// Items per request that names several.
inline constexpr std::size_t MAX_BATCH = 1000;

struct ApiRequest {
  std::string method = {};
  std::string endpoint = {};
  std::multimap<std::string, std::string> query;
  std::string body = {};
  std::optional<std::string> key = {};  // of the account
  std::string base = {};                // where the client reaches the service
};

struct ApiReply {
  int status = 200;
  std::string body = {};   // a JSON object
  std::string allow = {};  // with 405: the method that is allowed
};

ApiReply errorReply(int status, std::string_view text);

// Answers the JSON API: each endpoint is one function from a request to a reply over the stores. Any thread.
class ApiHandlers {
 public:
  // Without a thumbnailer there are no previews but those that clients send.
  ApiHandlers(StorePool& stores, const ContentStore& contents, const SignedUrl& signer, const Clock& clock,
              Thumbnailer* thumbnailer = nullptr)
      : stores_(stores), contents_(contents), signer_(signer), clock_(clock), thumbnailer_(thumbnailer) {}

  ApiReply handle(const ApiRequest& request);

  // Drops abandoned uploads, and removes contents that belong to nobody any more from the disk. For the start; later
  // it is done before anybody is told where to send more.
  void tidy();

 private:
  // What an endpoint works with; one transaction's worth.
  struct Call {
    MetadataStore& store;
    Tree& tree;
    Uploads uploads;
    Addresses addresses;
    const ApiRequest& request;
    json::Object body;  // of a POST
  };
  using Handler = Answer<std::string> (ApiHandlers::*)(Call&);
  struct Endpoint {
    std::string_view method;
    Handler handler;
  };
  static const std::map<std::string_view, Endpoint>& endpoints();

  void collectGarbage();
  Answer<std::string> run(MetadataStore& store, const ApiRequest& request, Handler handler, json::Object body);

  // What "id" names.
  static Answer<View> itemOf(Call& call);
  // The upload that "key" and "upload_id" name.
  static Answer<Upload> uploadOf(Call& call);

  Answer<std::string> browse(Call& call);
  Answer<std::string> item(Call& call);
  Answer<std::string> changes(Call& call);
  Answer<std::string> trash(Call& call);
  Answer<std::string> move(Call& call);
  Answer<std::string> moveFolder(Call& call);
  Answer<std::string> folders(Call& call);
  Answer<std::string> deleteFiles(Call& call);
  Answer<std::string> deleteFolder(Call& call);
  Answer<std::string> restore(Call& call);
  Answer<std::string> purge(Call& call);
  Answer<std::string> share(Call& call);
  Answer<std::string> unshare(Call& call);
  Answer<std::string> registerFile(Call& call);
  Answer<std::string> uploadUrls(Call& call);
  Answer<std::string> uploadStatus(Call& call);
  Answer<std::string> uploadParts(Call& call);
  Answer<std::string> uploadComplete(Call& call);
  Answer<std::string> uploadAbort(Call& call);
  Answer<std::string> notifyUpload(Call& call);
  Answer<std::string> contentUrl(Call& call);
  Answer<std::string> contentCommit(Call& call);
  Answer<std::string> thumbUrls(Call& call);

  StorePool& stores_;
  const ContentStore& contents_;
  const SignedUrl& signer_;
  const Clock& clock_;
  Thumbnailer* thumbnailer_;
};

}  // namespace vondle::storage
