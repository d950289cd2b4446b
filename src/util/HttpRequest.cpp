#include "util/HttpRequest.h"

#include <curl/curl.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <limits>
#include <mutex>
#include <new>
#include <utility>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {

constexpr char kStart[] = "hvn::Result hvn::util::HttpRequest::Start(hvn::util::Buffer&)";

/// Keeps SIGPIPE from the thread, and takes the one that came meanwhile: libcurl leaves that to its
/// caller where it may use no signals.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~SigpipeBlock() {
    const timespec at_once = {0, 0};
    if (!was_pending_) sigtimedwait(&pipe_, nullptr, &at_once);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;

 private:
  sigset_t pipe_;
  sigset_t before_;
  bool was_pending_;
};

}  // namespace

HttpRequest::HttpRequest() {
  static std::mutex mutex;  // libcurl's own first use is not safe for threads in every release
  std::lock_guard<std::mutex> lock(mutex);
  curl_ = curl_easy_init();
}

HttpRequest::~HttpRequest() {
  if (curl_ != nullptr) curl_easy_cleanup(curl_);
}

void HttpRequest::SetMethod(Method method, std::string body) {
  method_ = method;
  body_ = std::move(body);
}

void HttpRequest::SetLimits(long connect_ms, long total_ms, size_t max_body) {
  is_limited_ = true;
  connect_ms_ = connect_ms;
  total_ms_ = total_ms;
  max_body_ = max_body;
}

void HttpRequest::VerifyPeer(std::string ca_file) {
  verifies_ = true;
  ca_file_ = std::move(ca_file);
  if (curl_ != nullptr) curl_easy_reset(curl_);  // or the file of an earlier call would stay
}

hvn::Result HttpRequest::Start(Buffer& out) {
  HUTIL_LOG(LOG_DEBUG, "%s %d: HttpRequest start \n", kStart, __LINE__);
  out.Clear();
  out_ = &out;
  has_answer_ = false;
  if (curl_ == nullptr || url_.empty() || method_ == kNone) return hvn::kFailure;
  curl_easy_setopt(curl_, CURLOPT_USERAGENT, user_agent_.c_str());
  curl_easy_setopt(curl_, CURLOPT_URL, url_.c_str());
  SetBody();
  SetHeaders();
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &HttpRequest::CurlWritefunction);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
  SetTrust();
  const auto code =
      static_cast<CURLcode>(is_limited_ ? PerformWithinBounds() : curl_easy_perform(curl_));
  has_answer_ = code == CURLE_OK;
  if (code != CURLE_OK) {
    HUTIL_LOG(LOG_ERR, "%s %d: curl_easy_perform() failed: %s\n", kStart, __LINE__,
              curl_easy_strerror(code));
  }
  FreeHeaders();
  return hvn::kSuccess;
}

void HttpRequest::SetTrust() {
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, verifies_ ? 1L : 0L);
  if (!verifies_ || ca_file_.empty()) return;
  curl_easy_setopt(curl_, CURLOPT_CAINFO, ca_file_.c_str());
  curl_easy_setopt(curl_, CURLOPT_CAPATH, nullptr);  // the system's roots do not count then
}

/// WriteFuntion counts the body, whose length a server need not announce, nor truthfully.
void HttpRequest::SetBounds() {
  curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
  // libcurl's 0 would stand for a limit of its own.
  curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, connect_ms_ > 0 ? connect_ms_ : long{INT_MAX});
  curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, std::max(total_ms_, 0L));
#if LIBCURL_VERSION_NUM >= 0x075500
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
#else
  curl_easy_setopt(curl_, CURLOPT_PROTOCOLS, CURLPROTO_HTTP | CURLPROTO_HTTPS);
#endif
}

int HttpRequest::PerformWithinBounds() {
  SetBounds();
  const SigpipeBlock block;
  return curl_easy_perform(curl_);
}

int HttpRequest::status_code() const {
  long status = 0;
  if (has_answer_) curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
  return static_cast<int>(status);
}

void HttpRequest::SetBody() {
  if (method_ != kPost) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: method_ != POST \n", kStart, __LINE__);
    curl_easy_setopt(curl_, CURLOPT_POST, 0L);
    return;
  }
  // Without a text, libcurl would read the body from standard input.
  curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body_.c_str());
  curl_easy_setopt(curl_, CURLOPT_POST, 1L);
}

void HttpRequest::SetHeaders() {
  for (const std::string& line : headers_) {
    HUTIL_LOG(LOG_DEBUG, "%s %d: header [%s]\n", kStart, __LINE__, line.c_str());
    curl_slist* const longer = curl_slist_append(header_list_, line.c_str());
    if (longer != nullptr) header_list_ = longer;
  }
  if (header_list_ != nullptr) curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, header_list_);
}

/// The handle must not go on referring to the freed list.
void HttpRequest::FreeHeaders() {
  curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, nullptr);
  curl_slist_free_all(header_list_);
  header_list_ = nullptr;
}

size_t HttpRequest::WriteFuntion(void* data, size_t size) {
  if (out_ == nullptr || size > std::numeric_limits<unsigned int>::max()) return 0;
  if (max_body_ > 0 && uint64_t{out_->length()} + size > max_body_) return 0;
  try {
    const auto length = static_cast<unsigned int>(size);
    return out_->Copy(static_cast<unsigned char*>(data), length) ? size : 0;
  } catch (const std::bad_alloc&) {
    return 0;  // no exception crosses libcurl; it reports the failed write
  }
}

size_t HttpRequest::CurlWritefunction(void* data, size_t size, size_t nmemb, HttpRequest* self) {
  return self == nullptr ? size * nmemb : self->WriteFuntion(data, size * nmemb);
}

}  // namespace util
}  // namespace hvn
