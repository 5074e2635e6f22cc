// Backtraces on fatal signals.
#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

#include <Quor/SignalHandler.h>

namespace Quor {

namespace {
constexpr int fatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};

// Async-signal-safe: write(2) and backtrace_symbols_fd only (backtrace() is primed at
// registration so that its lazy loading does not happen inside the handler).
void onFatalSignal(int sig) {
  char const* name = strsignal(sig);
  char const head[] = "*** fatal signal: ";
  (void)!::write(STDERR_FILENO, head, sizeof head - 1);
  (void)!::write(STDERR_FILENO, name, std::strlen(name));
  (void)!::write(STDERR_FILENO, "; backtrace:\n", 13);
  void* frames[64];
  int const n = ::backtrace(frames, 64);
  ::backtrace_symbols_fd(frames, n, STDERR_FILENO);
  // End the process as the signal would have: default action, then raise it again.
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}
}  // namespace

void SignalHandler::registerSignalHandler() {
  void* prime[1];
  ::backtrace(prime, 1);
  struct sigaction sa {};
  sa.sa_handler = onFatalSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESETHAND | SA_NODEFER;
  for (int sig : fatalSignals) ::sigaction(sig, &sa, nullptr);
}

}  // namespace Quor
