// Fetches a page and prints it.
//
//     http_fetch URL [ROOTS.PEM]
//
// Servers of https show a certificate that ends in one of the system's roots, or of ROOTS.PEM.
//
// Exit status: 0, 1 where no page came back, 2 wrong command line.

#include <syslog.h>

#include <cstdio>
#include <string>

#include "util/HttpRequest.h"

using hvn::util::Buffer;
using hvn::util::HttpRequest;

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: http_fetch URL [ROOTS.PEM]\n");
    return 2;
  }
  openlog("http_fetch", LOG_PERROR, LOG_USER);  // a transfer that failed is told of in the log only
  setlogmask(LOG_UPTO(LOG_INFO));
  HttpRequest request;
  request.url_ = argv[1];
  request.user_agent_ = "http_fetch";
  request.headers_.push_back("Accept: text/plain");
  request.SetLimits(3000, 30000, 16 << 20);  // to connect, in all (ms); bytes of the page
  request.VerifyPeer(argc == 3 ? argv[2] : "");
  Buffer page;
  request.Start(page);
  if (request.status_code() == 0) return 1;  // the log says why
  if (request.status_code() != 200) {
    std::fprintf(stderr, "http_fetch: status %d\n", request.status_code());
    return 1;  // what came is the server's page about that
  }
  std::fwrite(page.data(), 1, page.length(), stdout);
  return 0;
}
