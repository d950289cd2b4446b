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
///     request.SetLimits(2000, 10000, 1 << 20);
///     request.Start(body);
///     if (request.status_code() == 200) Consume(body.data(), body.length());
///
/// The server's certificate chain is not verified but after VerifyPeer. libcurl's defaults hold for
/// the rest: no time limit (see SetLimits), no redirects. Different objects are independent.
class HUTIL_EXPORT HttpRequest {
 public:
  /// kNone runs nothing.
  enum Method : int { kNone = 0, kGet = 1, kPost = 2 };

  /// Makes the libcurl handle; where that fails, Start does. Owner.
  HttpRequest();
  /// Releases the handle and its connection. Owner.
  ~HttpRequest();
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  /// Sets the method and, for kPost, the body, which ends at its first NUL. Any value but kNone
  /// and kPost means GET. Owner.
  void SetMethod(Method method, std::string body);
  /// Bounds each later request: to connect within `connect_ms` and to be over within `total_ms`
  /// milliseconds, and to take no body of more than `max_body` bytes; 0 each means no such bound.
  /// Such a request fetches by http and https only, and neither uses nor raises signals (which
  /// leaves name look-ups out of the bounds where libcurl has neither threads nor c-ares for them).
  /// One that breaks a bound fails as any transfer does, with at most `max_body` bytes in its
  /// buffer. Owner. See CURLOPT_TIMEOUT_MS(3) and CURLOPT_NOSIGNAL(3).
  void SetLimits(long connect_ms, long total_ms, size_t max_body);
  /// Lets each later HTTPS request succeed only with a server whose certificate chain ends in a
  /// root of the PEM file `ca_file`, or of the system's where that is empty; its name is checked in
  /// any case. Owner. See CURLOPT_CAINFO(3).
  void VerifyPeer(std::string ca_file);
  /// The status of the last request's answer, such as 200 or 404; 0 where none came, or none whole,
  /// and once VerifyPeer has been called. Owner.
  int status_code() const;
  /// Runs the request and fills `out`, which is emptied first, with the response's body, an error
  /// page included. kFailure, silently, without a URL, a method or a handle. kSuccess otherwise,
  /// also where the transfer failed: that is logged (3) and leaves `out` empty or partial. Traces
  /// at 7, each header line among them. Owner. See libcurl-easy(3).
  hvn::Result Start(Buffer& out);

  /// Appends to the buffer of the running Start, unless that makes it too long; for libcurl's use.
  /// Spelt as daemons that call it know it. Owner.
  size_t WriteFuntion(void* data, size_t size);
  /// libcurl's write callback; see CURLOPT_WRITEFUNCTION(3). Owner.
  static size_t CurlWritefunction(void* data, size_t size, size_t nmemb, HttpRequest* self);

 private:
  void SetBody();
  int PerformWithinBounds();
  void SetBounds();
  void SetTrust();
  void SetHeaders();
  void FreeHeaders();

  void* curl_ = nullptr;
  curl_slist* header_list_ = nullptr;
  std::string body_;  ///< The handle refers to it from one POST to the next.
  Method method_ = kGet;
  bool is_limited_ = false;
  long connect_ms_ = 0;
  long total_ms_ = 0;
  size_t max_body_ = 0;
  bool verifies_ = false;
  std::string ca_file_;
  bool has_answer_ = false;

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
