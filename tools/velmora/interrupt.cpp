#include "interrupt.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

namespace velmora::tool {

namespace {

// What the handler reads and writes: fixed buffers and flags, because a handler may touch
// nothing else.
char g_temp_path[4096];
volatile sig_atomic_t g_temp_pending = 0;
volatile sig_atomic_t g_soft_stop = 0;
volatile sig_atomic_t g_stop_signal = 0;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void OnInterrupt(int signal) {
  if (g_soft_stop && g_stop_signal == 0) {
    g_stop_signal = signal;
    return;
  }
  if (g_temp_pending) unlink(g_temp_path);
  std::signal(signal, SIG_DFL);
  std::raise(signal);  // delivered once the handler returns: the usual death by that signal
}

sigset_t InterruptSet() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : kSignals) sigaddset(&set, signal);
  return set;
}

}  // namespace

void InstallInterruptHandlers() {
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = OnInterrupt;
  // One handler at a time: a second signal waits for the first handler, so it always finds the
  // stop already asked for.
  action.sa_mask = InterruptSet();
  action.sa_flags = 0;  // no SA_RESTART: a read blocked on a pipe must come back
  for (int signal : kSignals) sigaction(signal, &action, nullptr);
}

void AllowSoftStop() { g_soft_stop = 1; }

int StopSignal() { return g_stop_signal; }

InterruptsDeferred::InterruptsDeferred() {
  const sigset_t set = InterruptSet();
  pthread_sigmask(SIG_BLOCK, &set, &saved_);
}

InterruptsDeferred::~InterruptsDeferred() {
  pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

void GuardTemporary(const std::string& path) {
  if (path.size() < sizeof g_temp_path) {
    std::memcpy(g_temp_path, path.c_str(), path.size() + 1);
    g_temp_pending = 1;
  }
}

void ReleaseTemporary() { g_temp_pending = 0; }

}  // namespace velmora::tool
