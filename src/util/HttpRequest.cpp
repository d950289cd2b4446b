#include "util/HttpRequest.h"

#include <curl/curl.h>

#include <limits>
#include <mutex>
#include <new>
#include <utility>

#include "util/internal/Log.h"

namespace hvn {
namespace util {

namespace {
constexpr char kStart[] = "hvn::Result hvn::util::HttpRequest::Start(hvn::util::Buffer&)";
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

hvn::Result HttpRequest::Start(Buffer& out) {
  HUTIL_LOG(LOG_DEBUG, "%s %d: HttpRequest start \n", kStart, __LINE__);
  out.Clear();
  out_ = &out;
  if (curl_ == nullptr || url_.empty() || method_ == kNone) return hvn::kFailure;
  curl_easy_setopt(curl_, CURLOPT_USERAGENT, user_agent_.c_str());
  curl_easy_setopt(curl_, CURLOPT_URL, url_.c_str());
  SetBody();
  SetHeaders();
  curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &HttpRequest::CurlWritefunction);
  curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(curl_, CURLOPT_SSL_VERIFYPEER, 0L);
  const CURLcode code = curl_easy_perform(curl_);
  if (code != CURLE_OK) {
    HUTIL_LOG(LOG_ERR, "%s %d: curl_easy_perform() failed: %s\n", kStart, __LINE__,
              curl_easy_strerror(code));
  }
  FreeHeaders();
  return hvn::kSuccess;
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
