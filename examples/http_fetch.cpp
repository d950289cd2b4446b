// Fetches a page and prints it.
//
//     http_fetch URL
//
// Exit status: 0, 1 where nothing came back, 2 wrong command line.

#include <syslog.h>

#include <cstdio>
#include <string>

#include "util/HttpRequest.h"

using hvn::util::Buffer;
using hvn::util::HttpRequest;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: http_fetch URL\n");
    return 2;
  }
  openlog("http_fetch", LOG_PERROR, LOG_USER);  // a transfer that failed is told of in the log only
  setlogmask(LOG_UPTO(LOG_INFO));
  HttpRequest request;
  request.url_ = argv[1];
  request.user_agent_ = "http_fetch";
  request.headers_.push_back("Accept: text/plain");
  Buffer page;
  if (request.Start(page) != hvn::kSuccess) return 1;
  std::fwrite(page.data(), 1, page.length(), stdout);
  return page.length() > 0 ? 0 : 1;
}
