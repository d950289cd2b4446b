// The lines at the top of the public headers, compiled: scripts/check-docs.sh compares the two.
// What they call and the library does not have is the reader's own, and stands first.

#include <signal.h>

#include <mutex>
#include <string>
#include <thread>

#include "util/Buffer.h"
#include "util/DhcpServer.h"
#include "util/EventDic.h"
#include "util/FdMonitor.h"
#include "util/HttpRequest.h"
#include "util/Misc.h"
#include "util/NetworkManager.h"
#include "util/PersistentConfig.h"
#include "util/ProcessControl.h"
#include "util/Socket.h"
#include "util/SocketClient.h"
#include "util/SocketServer.h"
#include "util/SocketServerRunner.h"
#include "util/SslWrapper.h"
#include "util/StringUtil.h"
#include "util/Thread.h"
#include "util/Timer.h"
#include "util/TimerManager.h"

using namespace hvn::util;  // as nobody should: for the sake of as many short lines

void Beat();
void Consume(int fd);
void Consume(const unsigned char* bytes, unsigned int count);
void Handle(const std::string& line);
void LookAgainAt(const std::string& interface);
void Note(const std::string& interface);
bool OnData(int server, int client, std::string path, void* data, size_t size);
bool PollAgain();
void Show(const std::string& text, const std::string& more = "");
int Usage();
void Work();

void AppendToBuffer(unsigned char* bytes, unsigned int count) {
  Buffer body(4096);
  body.Copy(bytes, count);
  Consume(body.data(), body.length());
}

void ListLeases() {
  for (const DhcpServer::LeaseInfo& lease : DhcpServer::GetAllLeaseInfo())
    Show(lease.ip_address, lease.host_name);
}

void ReadEvent(EventDic& event) {
  if (event.type_ == EventDic::kEventDelLink) LookAgainAt(event.GetParam(EventDic::kIfName));
}

void WatchDescriptor(int fd) {
  FdMonitor monitor;
  monitor.Add(fd, kRead, [](int ready, FdType) { Consume(ready); });
  Work();
  monitor.Remove(fd, kRead);
}

void FetchPage() {
  HttpRequest request;
  request.url_ = "http://192.168.1.10/status";
  Buffer body;
  if (request.Start(body) == hvn::kSuccess) Consume(body.data(), body.length());
}

void FetchPageWithLimits() {
  HttpRequest request;
  request.url_ = "http://192.168.1.10/status";
  Buffer body;
  request.SetLimits(2000, 10000, 1 << 20);
  request.Start(body);
  if (request.status_code() == 200) Consume(body.data(), body.length());
}

int ParsePort(const std::string& text) {
  bool failed = false;
  int port = Misc::StoiWithException(text, failed);
  if (failed) return Usage();
  return port;
}

void WatchNetwork() {
  NetworkManager network;
  for (const auto& name : NetworkManager::GetIfNames()) Show(network.GetMacAddress(name));
  network.SetEventCb([](EventDic& event) { Note(event.GetParam(EventDic::kIfName)); });
}

void WatchLinks() {
  NetworkManager network;
  for (const auto& name : NetworkManager::GetIfNames()) Show(network.GetMacAddress(name));
  network.SetEventCb([](EventDic& event) {
    if (event.type_ == EventDic::kEventNewLink) Note(event.GetParam(EventDic::kIfName));
  });
}

void RememberSetting() {
  PersistentConfig::SaveData("wan_mode", "2");
  std::string mode = PersistentConfig::LoadData("wan_mode");
}

void WakeDnsmasq() {
  pid_t pid = ProcessControl::GetPidByProcessName("dnsmasq", 1);
  if (pid > 0) kill(pid, SIGHUP);
}

void SendDatagram() {
  Socket probe("", Socket::kUdp, Socket::kIpv4, Socket::SocketOption());
  probe.SendTo("192.168.1.10;5000", std::string("who is there"));
}

void AskServer() {
  SocketClient::SocketClientOption option;
  option.connect_timeout_us = 2000000;
  SocketClient client("", Socket::kTcp, Socket::kIpv6, "::1;8443", option);
  if (client.is_connected()) client.Send(std::string("ifaces\n"));
}

void EchoWithLimits() {
  // clang-format off
  SocketServer::SocketServerOption option;
  option.peer_timeout_ms = 5000;
  SocketServer echo("::;7007", Socket::kTcp, Socket::kIpv6,
                    [&echo](int, int, std::string, void* data, size_t size) {
                      return echo.Reply(data, size) >= 0;
                    }, nullptr, option);
  // clang-format on
  Work();
}

void Echo() {
  // clang-format off
  SocketServer echo("::;7007", Socket::kTcp, Socket::kIpv6,
                    [&echo](int, int client, std::string, void* data, size_t size) {
                      return echo.SendTo(client, data, size) >= 0;
                    }, nullptr);
  // clang-format on
  Work();
}

void ServeSeveral() {
  Socket control("/run/control.sock", Socket::kTcp, Socket::kUnix, Socket::SocketOption());
  control.Listen(5);
  SocketServerRunner runner(OnData);
  runner.AddServer(&control);
}

void ServeTls() {
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  ssl.SetCertAndKeyFile("cert.pem", "key.pem", SslWrapper::kPem, SslWrapper::kPem);
  SocketServer server("::;8443", Socket::kTcp, Socket::kIpv6, OnData, &ssl);
}

void EchoByTls() {
  // clang-format off
  SslWrapper ssl(true, SslWrapper::kTlsV1_2);
  ssl.SetCertAndKeyFile("cert.pem", "key.pem", SslWrapper::kPem, SslWrapper::kPem);
  SocketServer echo("::;8443", Socket::kTcp, Socket::kIpv6,
                    [&echo](int, int client, std::string, void* data, size_t size) {
                      return echo.SendTo(client, data, size) >= 0;
                    }, &ssl);
  // clang-format on
  Work();
}

void SplitLines(const std::string& text) {
  for (const std::string& line : StringUtil::Split(text, '\n')) Handle(line);
}

void RunThread() {
  Thread worker;
  worker = std::thread(Work);
  worker.Join();
}

void WaitUntilReady(Mutex& mutex, Condition& condition, const bool& ready) {
  std::lock_guard<Mutex> lock(mutex);
  while (!ready) condition.WaitUntil(mutex, 500000);
}

void BeatFromTheStart() {
  Timer heartbeat(
      "heartbeat", [] { Beat(); }, 30000000, true);
}

void StartHeartbeat() {
  Timer heartbeat("heartbeat", [] { Beat(); });
  heartbeat.Start(30000000, true);
}

void PollEverySecond() {
  TimerManager timers;
  int id = timers.AddTask(
      1000000, [](int, void*) { return PollAgain(); }, nullptr);
  timers.RemoveTask(id);
}
