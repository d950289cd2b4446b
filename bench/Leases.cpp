// bench_leases STACK LINES SECONDS: dnsmasq's lease file, read whole.
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Bench.h"
#include "util/DhcpServer.h"

using hvn::util::DhcpServer;

namespace {

constexpr char kFile[] = "/var/lib/misc/dnsmasq.leases";

size_t lines;

void WriteFile() {
  std::ofstream file(kFile);
  for (size_t i = 0; i < lines; ++i) {
    char mac[18];
    snprintf(mac, sizeof(mac), "02:00:%02zx:%02zx:%02zx:01", i >> 16 & 255, i >> 8 & 255, i & 255);
    file << 1700000000 + i << ' ' << mac << " 10." << (i >> 16) << '.' << (i >> 8 & 255) << '.'
         << (i & 255) << " host-" << i << " 01:" << mac << '\n';
  }
}

/// Calls `use` with the five columns of each line.
template <typename Use>
void ForEachLine(Use use) {
  FILE* const file = fopen(kFile, "re");
  char* line = nullptr;
  size_t room = 0;
  while (getline(&line, &room, file) > 0) {
    char* columns[5] = {};
    char* rest = line;
    for (char*& column : columns) {
      column = strtok_r(rest, " \n", &rest);
    }
    use(columns);
  }
  free(line);
  fclose(file);
}

void Walk() {
  size_t count = 0;
  int64_t newest = 0;
  ForEachLine([&](char** columns) {
    newest = std::max<int64_t>(newest, strtoll(columns[0], nullptr, 10));
    ++count;
  });
  if (count != lines || newest == 0) Fail("a wrong count");
}

void Keep() {
  std::vector<DhcpServer::LeaseInfo> leases;
  ForEachLine([&leases](char** columns) {
    leases.push_back(
        {strtoll(columns[0], nullptr, 10), columns[1], columns[2], columns[3], columns[4]});
  });
  if (leases.size() != lines) Fail("a wrong count");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string stack = argv[1];
  lines = static_cast<size_t>(atoi(argv[2]));
  const double seconds = atof(argv[3]);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  RequireIsolation();
  WriteFile();
  if (stack == "hutil") {
    ReportCalls(seconds, [] {
      if (DhcpServer::GetAllLeaseInfo().size() != lines) Fail("a wrong count");
    });
  }
  if (stack == "getline") ReportCalls(seconds, Walk);
  if (stack == "getline-kept") ReportCalls(seconds, Keep);
  if (stack == "read") ReportCalls(seconds, [] { ReadWhole(kFile); });
}
