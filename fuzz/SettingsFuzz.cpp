// The settings file: what is stored is what is read, and lines of other keys stay as they are. The
// input is the file at first, then keys and values in turn, all of them ended by bytes of 0xFF.
#include <algorithm>

#include "Harness.h"
#include "util/PersistentConfig.h"

using hutil_fuzz::ErrorsLogged;
using hvn::util::PersistentConfig;

namespace {

hutil_fuzz::PrivateFile& File() {
  static hutil_fuzz::PrivateFile s_file("/data/persistent_data.conf");
  return s_file;
}

bool BelongsTo(const std::string& line, const std::string& prefix) {
  return line.compare(0, prefix.size(), prefix) == 0;
}

bool IsStorable(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\0'; });
}

void RefuseToStore(const std::string& key, const std::string& value) {
  const std::string before = File().Read();
  const int errors = ErrorsLogged();
  REQUIRE(PersistentConfig::SaveData(key, value) == hvn::kFailure);
  REQUIRE(ErrorsLogged() == errors + 1);
  REQUIRE(File().Read() == before);
  if (!IsStorable(key)) REQUIRE(PersistentConfig::LoadData(key).empty());
}

// Duplicates come from other writers only. Where one of them holds the value already nothing is
// written, so that an earlier one goes on being the one that is read.
void Store(const std::string& key, const std::string& value) {
  const std::string prefix = key + "=!=%=";
  const std::string before = File().Read();
  std::vector<std::string> lines = hutil_fuzz::Fields(before.c_str(), '\n');
  const bool held = std::find(lines.begin(), lines.end(), prefix + value) != lines.end();
  std::string read = value;
  bool found = false;
  std::string after;
  for (const std::string& line : lines) {
    const bool own = BelongsTo(line, prefix);
    if (held && own && !found) read = line.substr(prefix.size());
    found = found || own;
    after += (own ? prefix + value : line) + "\n";
  }
  if (!found) after += prefix + value + "\n";

  REQUIRE(PersistentConfig::SaveData(key, value) == hvn::kSuccess);
  REQUIRE(File().Read() == (held ? before : after));
  REQUIRE(PersistentConfig::LoadData(key) == read);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::string> parts = hutil_fuzz::Fields(hutil_fuzz::Text(data, size), '\xFF');
  File().Write(parts.empty() ? "" : parts[0]);
  for (std::size_t i = 1; i + 1 < parts.size() && i < 32; i += 2) {
    if (IsStorable(parts[i]) && IsStorable(parts[i + 1])) {
      Store(parts[i], parts[i + 1]);
    } else {
      RefuseToStore(parts[i], parts[i + 1]);
    }
  }
  return 0;
}
