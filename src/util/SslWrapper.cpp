#include "util/SslWrapper.h"

#include <utility>

#include "util/OpenSslImpl.h"
#include "util/internal/Log.h"

namespace hvn {
namespace util {

SslWrapper::SslWrapper(bool is_server, Method method) {
  HUTIL_LOG(LOG_DEBUG, "%s %d: Ssl method selected as [%d]\n",
            "hvn::util::SslWrapper::SslWrapper(bool, hvn::util::SslWrapper::Method)", __LINE__,
            method);
  impl_ = std::make_unique<OpenSslImpl>(is_server, method);
}

SslWrapper::~SslWrapper() = default;

hvn::Result SslWrapper::SetRootCaFile(std::string path, FileType type) {
  return impl_->SetRootCaFile(std::move(path), type);
}

hvn::Result SslWrapper::SetCertAndKeyFile(std::string cert_path, std::string key_path,
                                          FileType cert_type, FileType key_type) {
  return impl_->SetCertAndKeyFile(std::move(cert_path), std::move(key_path), cert_type, key_type);
}

bool SslWrapper::SetCipherLists(std::vector<std::string> lists) {
  std::string text;
  for (const std::string& entry : lists) text += entry + ":";
  HUTIL_LOG(LOG_DEBUG, "%s %d: cipher lists [%s]\n",
            "bool hvn::util::SslWrapper::SetCipherLists(std::vector<std::basic_string<char> >)",
            __LINE__, text.c_str());
  return impl_->SetCipherLists(std::move(lists));
}

SslWrapper::FileType SslWrapper::GetCertType(Buffer& data) {
  return OpenSslImpl::GetCertType(data);
}

SslWrapper::FileType SslWrapper::GetKeyType(Buffer& data) { return OpenSslImpl::GetKeyType(data); }

hvn::Result SslWrapper::SetCertChainFile(std::string path) {
  return impl_->SetCertChainFile(std::move(path));
}

bool SslWrapper::VerifyPeer(std::string host) { return impl_->VerifyPeer(std::move(host)); }

bool SslWrapper::UseModernTls() { return impl_->UseModernTls(); }

void SslWrapper::SetTimeLimit(int timeout_ms) { impl_->SetTimeLimit(timeout_ms); }

OpenSslImpl& ImplOf(SslWrapper& wrapper) { return *wrapper.impl_; }

bool SslWrapper::Connect(int fd) { return impl_->Connect(fd); }

bool SslWrapper::Accept(int fd) { return impl_->Accept(fd); }

ssize_t SslWrapper::Send(int fd, const void* data, size_t size) {
  return impl_->Send(fd, data, size);
}

ssize_t SslWrapper::Send(int fd, void* data, size_t size) { return impl_->Send(fd, data, size); }

ssize_t SslWrapper::Recv(int fd, void* data, size_t size) { return impl_->Recv(fd, data, size); }

size_t SslWrapper::Pending(int fd) { return impl_->Pending(fd); }

bool SslWrapper::RemoveClient(int fd) { return impl_->RemoveClient(fd); }

}  // namespace util
}  // namespace hvn
