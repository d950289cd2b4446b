// Makes a floor of what a library with a loop of its own has to be: a process of two threads. Even
// while the other one sleeps, the kernel counts a reference at each look at a descriptor, and libc
// takes its locks.
#include <pthread.h>
#include <unistd.h>

namespace {

void* Sleep(void*) {
  for (;;) pause();
}

[[maybe_unused]] const int started = [] {
  pthread_t thread;
  return pthread_create(&thread, nullptr, Sleep, nullptr);
}();

}  // namespace
