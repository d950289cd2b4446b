// bench_http STACK BYTES SECONDS: GET requests one after the other to a server in a process of its
// own.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "Bench.h"
#include "util/HttpRequest.h"

using hvn::util::Buffer;
using hvn::util::HttpRequest;

namespace {

size_t bytes;

int Listen(uint16_t& port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 5) != 0) {
    Fail("listen");
  }
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  port = ntohs(address.sin_port);
  return fd;
}

/// Answers whatever ends in an empty line, on connections that stay open.
[[noreturn]] void Serve(int listener) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(bytes) +
                             "\r\n\r\n" + std::string(bytes, 'b');
  for (;;) {
    const int client = accept(listener, nullptr, nullptr);
    std::string request;
    char buffer[4096];
    ssize_t n;
    while ((n = recv(client, buffer, sizeof(buffer), 0)) > 0) {
      request.append(buffer, static_cast<size_t>(n));
      if (request.find("\r\n\r\n") == std::string::npos) continue;
      request.clear();
      for (size_t sent = 0; sent < answer.size();) {
        n = send(client, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n < 1) break;
        sent += static_cast<size_t>(n);
      }
    }
    close(client);
  }
}

size_t Append(char* data, size_t size, size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

void MeasureCurl(const std::string& url, double seconds) {
  CURL* const curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
  ReportCalls(seconds, [curl] {
    std::string body;
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(curl) != CURLE_OK || body.size() != bytes) Fail("curl_easy_perform");
  });
  curl_easy_cleanup(curl);
}

void MeasureHutil(const std::string& url, double seconds) {
  HttpRequest request;
  request.url_ = url;
  ReportCalls(seconds, [&request] {
    Buffer body;
    if (request.Start(body) != hvn::kSuccess || body.length() != bytes) Fail("Start");
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string stack = argv[1];
  bytes = static_cast<size_t>(atoi(argv[2]));
  const double seconds = atof(argv[3]);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  uint16_t port = 0;
  const int listener = Listen(port);
  const pid_t server = fork();
  if (server < 0) Fail("fork");
  if (server == 0) Serve(listener);
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
  if (stack == "hutil") MeasureHutil(url, seconds);
  if (stack == "libcurl") MeasureCurl(url, seconds);
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
}
