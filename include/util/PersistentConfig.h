#ifndef HUTIL_UTIL_PERSISTENTCONFIG_H_
#define HUTIL_UTIL_PERSISTENTCONFIG_H_

#include <string>

#include "util/Export.h"
#include "util/Result.h"
#include "util/Thread.h"

namespace hvn {
namespace util {

/// Small settings that survive a reboot: the text file /data/persistent_data.conf, one line
/// "KEY=!=%=VALUE" per key.
///
///     PersistentConfig::SaveData("wan_mode", "2");
///     std::string mode = PersistentConfig::LoadData("wan_mode");
///
/// Keys and values hold neither line feeds nor NULs. Lines of no known key are kept. A file above
/// 1 MiB is neither read nor written, and nothing keeps SaveData from making it so: all later calls
/// fail then, SaveData's and LoadData's silently. Both operations create the file where it is
/// missing.
///
/// SaveData rewrites the file in place and synchronously, in one write(2); other processes are not
/// locked out. A process killed meanwhile leaves the old file, the new one, or a new one that is
/// shorter with the rest of the old behind it; above 4096 bytes also the beginning of the new one
/// in front of the rest of the old, cut between two pages. A loss of power can leave such mixtures
/// too.
class HUTIL_EXPORT PersistentConfig {
 public:
  /// Stores `value` on every line of `key`, or on a new one; the value is on the medium when this
  /// returns. Writes nothing where any line of `key` holds it already. kFailure where the file
  /// cannot be opened (logged, 3) or is too large (silent), and for a line feed or NUL (logged, 3).
  /// A short write is only logged. What cannot be read (no memory, a failing medium) counts as not
  /// there and is not written back. A change logs the whole new file at 7. Any thread.
  static hvn::Result SaveData(std::string key, std::string value);
  /// SaveData by way of a new file, "persistent_data.conf.new", that takes the old one's place,
  /// with its owner and mode: whatever happens (SIGKILL, a loss of power, a full medium), all of
  /// the old settings or all of the new ones are there. kSuccess only where the new ones are on the
  /// medium; after kFailure, logged (3), it is mostly the old ones, and saving again settles it.
  /// Processes that save in this way only wait for one another, for some seconds at the most, and
  /// lose none of each other's settings. kFailure too for a file that is a link or mounted on its
  /// own, or would exceed 1 MiB. Values are not logged. Any thread. See rename(2) and flock(2) of
  /// the folder.
  HUTIL_NODISCARD static hvn::Result SaveDataAtomically(std::string key, std::string value);
  /// The value on the first line of `key`, which may be empty. Empty too where there is none, where
  /// the file is too large and where it cannot be opened (logged, 3). Any thread.
  static std::string LoadData(std::string key);

 private:
  static Mutex mutex_;
  static const std::string kIndexer;
};

}  // namespace util
}  // namespace hvn

#endif  // HUTIL_UTIL_PERSISTENTCONFIG_H_
