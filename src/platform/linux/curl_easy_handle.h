#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "base/error.h"
#include "platform/linux/upload_source.h"
#include "platform/url_session.h"

namespace vondle {

struct CurlOptions {
  std::string caFile;  // certificates of the authorities to trust; empty: the system's bundle
};

// One libcurl transfer with everything set that does not call back: the request, and the rules of every session.
// Headers that are the session's own (Connection, Content-Length, Expect, Host, Transfer-Encoding) are left out.
class CurlEasyHandle {
 public:
  // With a source the request has a body of its length. Fails for a request that can't be sent as it stands.
  static Result<CurlEasyHandle> make(const URLRequest& request, const UploadSource* source, const CurlOptions& options,
                                     Duration connectTimeout);

  [[nodiscard]] CURL* get() const { return easy_.get(); }
  [[nodiscard]] std::string_view errorText() const { return errorText_->data(); }
  // Of values that the compiler lets through; a refused option fails the task rather than weakening a rule.
  template <class Value>
  void set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(easy_.get(), option, value);
    if (refused_ == CURLE_OK) refused_ = code;
  }
  [[nodiscard]] CURLcode refused() const { return refused_; }

 private:
  CurlEasyHandle();
  void setRules(const CurlOptions& options, Duration connectTimeout);
  bool setHeaders(const URLRequest& request);
  void setMethod(const URLRequest& request, const UploadSource* source);

  std::unique_ptr<std::array<char, CURL_ERROR_SIZE>> errorText_;
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers_;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy_;  // last: it refers to the others
  CURLcode refused_ = CURLE_OK;
};

}  // namespace vondle
