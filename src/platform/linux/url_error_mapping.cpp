#include "platform/linux/url_error_mapping.h"

namespace vondle {
namespace {

std::int64_t codeFor(CURLcode code) {
  switch (code) {
    case CURLE_URL_MALFORMAT:
      return URL_BAD_URL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return URL_CANNOT_FIND_HOST;
    case CURLE_COULDNT_CONNECT:
    case CURLE_INTERFACE_FAILED:
    case CURLE_PROXY:
      return URL_CANNOT_CONNECT_TO_HOST;
    case CURLE_OPERATION_TIMEDOUT:
      return URL_TIMED_OUT;
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_FAIL_REWIND:
      return URL_NETWORK_CONNECTION_LOST;
    case CURLE_UNSUPPORTED_PROTOCOL:  // schemes are checked before: an answer that is not HTTP/1
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP_RETURNED_ERROR:
      return URL_BAD_SERVER_RESPONSE;
    case CURLE_BAD_CONTENT_ENCODING:
      return URL_CANNOT_DECODE_RAW_DATA;
    case CURLE_TOO_MANY_REDIRECTS:
      return URL_HTTP_TOO_MANY_REDIRECTS;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_ISSUER_ERROR:
      return URL_SERVER_CERTIFICATE_UNTRUSTED;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CLIENTCERT:
    case CURLE_USE_SSL_FAILED:
      return URL_SECURE_CONNECTION_FAILED;
    default:
      return URL_UNKNOWN;
  }
}

}  // namespace

Error urlError(CURLcode code, std::string_view detail) {
  return {URL_ERROR_DOMAIN, codeFor(code), std::string(detail.empty() ? curl_easy_strerror(code) : detail)};
}

}  // namespace vondle
