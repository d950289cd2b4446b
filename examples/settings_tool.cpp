// Reads and writes the settings that survive a reboot.
//
//     settings_tool get KEY
//     settings_tool set KEY VALUE
//
// Exit status: 0 done, 1 no such setting or not stored, 2 wrong command line.

#include <syslog.h>

#include <cstdio>
#include <string>

#include "util/PersistentConfig.h"

using hvn::util::PersistentConfig;

int main(int argc, char** argv) {
  openlog("settings_tool", LOG_PERROR, LOG_USER);  // what the library has to say is for the user
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "get" && argc == 3) {
    const std::string value = PersistentConfig::LoadData(argv[2]);
    if (value.empty()) return 1;  // an empty value is as good as none
    std::printf("%s\n", value.c_str());
    return 0;
  }
  if (verb == "set" && argc == 4) {
    return PersistentConfig::SaveDataAtomically(argv[2], argv[3]) == hvn::kSuccess ? 0 : 1;
  }
  std::fprintf(stderr, "usage: settings_tool get KEY | set KEY VALUE\n");
  return 2;
}
