#ifndef HUTIL_UTIL_HTTPREQUEST_H_
#define HUTIL_UTIL_HTTPREQUEST_H_

#include <cstddef>
#include <list>
#include <string>

#include "util/Buffer.h"
#include "util/Export.h"
#include "util/Result.h"

struct curl_slist;

namespace hvn {
namespace util {

/// HTTP and HTTPS requests, one after the other, each blocking its caller.
///
///     HttpRequest request;
///     request.url_ = "http://192.168.1.10/status";
///     Buffer body;
///     if (request.Start(body) == hvn::kSuccess) Consume(body.data(), body.length());
///
/// The server's certificate chain is not verified. libcurl's defaults hold for the rest: no time
/// limit, no redirects. Every operation: owner; different objects are independent.
class HUTIL_EXPORT HttpRequest {
 public:
  /// kNone runs nothing.
  enum Method : int { kNone = 0, kGet = 1, kPost = 2 };

  /// Makes the libcurl handle; where that fails, Start does.
  HttpRequest();
  /// Releases the handle and its connection.
  ~HttpRequest();
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  /// Sets the method and, for kPost, the body, which ends at its first NUL. Any value but kNone
  /// and kPost means GET.
  void SetMethod(Method method, std::string body);
  /// Runs the request and fills `out`, which is emptied first, with the response's body, an error
  /// page included. kFailure, silently, without a URL, a method or a handle. kSuccess otherwise,
  /// also where the transfer failed: that is logged (3) and leaves `out` empty or partial. Traces
  /// at 7, each header line among them. See libcurl-easy(3).
  hvn::Result Start(Buffer& out);

  /// Appends to the buffer of the running Start; for libcurl's use.
  size_t WriteFuntion(void* data, size_t size);
  /// libcurl's write callback; see CURLOPT_WRITEFUNCTION(3).
  static size_t CurlWritefunction(void* data, size_t size, size_t nmemb, HttpRequest* self);

 private:
  void SetBody();
  void SetHeaders();
  void FreeHeaders();

  void* curl_ = nullptr;
  curl_slist* header_list_ = nullptr;
  std::string body_;  ///< The handle refers to it from one POST to the next.
  Method method_ = kGet;

 public:
  std::string user_agent_;  ///< Sent with each request; empty sends none.
  std::string url_;         ///< What Start fetches.

 private:
  Buffer* out_ = nullptr;

 public:
  std::list<std::string> headers_;  ///< Extra lines, such as "Content-Type: application/json".
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_HTTPREQUEST_H_
