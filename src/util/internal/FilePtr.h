#ifndef HUTIL_UTIL_INTERNAL_FILEPTR_H_
#define HUTIL_UTIL_INTERNAL_FILEPTR_H_

#include <cstdio>
#include <memory>

namespace hvn {
namespace util {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Owns a stdio stream.
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_INTERNAL_FILEPTR_H_
