#ifndef HUTIL_EXAMPLES_SNIPPETS_H_
#define HUTIL_EXAMPLES_SNIPPETS_H_

// What the code in the headers' comments, the README and the guide names and the library does not
// have: the reader's own. The build compiles each piece of that code as the body of a function
// behind this header; scripts/snippets.py makes that source.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "util/EventDic.h"
#include "util/SocketServer.h"
#include "util/SslWrapper.h"
#include "util/Thread.h"

using namespace hvn::util;  // as nobody should: for the sake of as many short lines

struct Session {
  bool Take(const void* data, size_t size);
};

void Beat();
void Consume(int fd);
void Consume(const unsigned char* bytes, unsigned int count);
void Forget(int client);
void Handle(const std::string& line);
void LookAgainAt(const std::string& interface);
void Note(const std::string& interface);
bool OnData(int server, int client, std::string path, void* data, size_t size);
bool PollAgain();
void Show(const std::string& text, const std::string& more = "");
std::string TimeText();
void Usage();
void Work();

extern unsigned char* bytes;
extern int client;
extern Condition condition;
extern unsigned int count;
extern EventDic event;
extern int fd;
extern Mutex mutex;
extern SocketServer::SocketServerOption option;
extern std::string path;
extern bool ready;
extern SocketServer server;
extern SslWrapper ssl;
extern std::string text;

#endif  // HUTIL_EXAMPLES_SNIPPETS_H_
