// Ctrl-C (SIGINT), SIGTERM and SIGHUP. Once a run may stop softly, the first of them asks it to
// stop reading and keep what it has folded; a second one, or any before that, ends the process
// at once and removes the output's temporary file, so the destination is never left half-written.
#ifndef VELMORA_TOOL_INTERRUPT_H
#define VELMORA_TOOL_INTERRUPT_H

#include <csignal>
#include <string>

namespace velmora::tool {

// Installs the handlers, without SA_RESTART, so that a blocking read (a slow pipe) returns with
// EINTR and the reader can look at StopRequested().
void InstallInterruptHandlers();

// From now on the first signal only asks for a stop.
void AllowSoftStop();

// The signal that asked for a stop, or 0.
int StopSignal();
inline bool StopRequested() { return StopSignal() != 0; }

// Keeps the signals off the calling thread while it lives, so that threads it starts (the
// library's worker, a decoder's) inherit the block and the signal always lands on the thread
// that reads frames, where it interrupts the read. Signals that come meanwhile wait until then.
class InterruptsDeferred {
 public:
  InterruptsDeferred();
  ~InterruptsDeferred();
  InterruptsDeferred(const InterruptsDeferred&) = delete;
  InterruptsDeferred& operator=(const InterruptsDeferred&) = delete;

 private:
  sigset_t saved_;  // the caller's signal mask
};

// The file that a fatal signal removes; one at a time.
void GuardTemporary(const std::string& path);
void ReleaseTemporary();

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_INTERRUPT_H
