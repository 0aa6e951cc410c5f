// Ctrl-C handling and running procedures for the qel command.
#include "host.h"

#include <signal.h>

namespace qelcli {

namespace {

QelVirtualMachine* g_watched = nullptr;
volatile sig_atomic_t g_interrupted = 0;
struct sigaction g_previous;

void onInterrupt(int) {
  g_interrupted = 1;
  if (g_watched) g_watched->interrupt();
}

}  // namespace

void watchInterrupts(QelVirtualMachine& vm) {
  struct sigaction action = {};
  action.sa_handler = onInterrupt;  // no SA_RESTART: a read in progress returns
  sigemptyset(&action.sa_mask);
  g_watched = &vm;
  sigaction(SIGINT, &action, &g_previous);
}

void stopWatching() {
  sigaction(SIGINT, &g_previous, nullptr);
  g_watched = nullptr;
}

bool takeInterrupt() {
  bool came = g_interrupted != 0;
  g_interrupted = 0;
  return came;
}

bool interruptPending() { return g_interrupted != 0; }

bool runProcedure(QelVirtualMachine& vm, const QelChar* entry, int argc, const QelChar** argv, bool trace,
                  IQelPrinter& err) {
  bool ok = vm.execute(entry, argc, argv, trace, &err, &err);
  if (!ok) err(u"%s", vm.lastTraceback().c_str());
  return ok;
}

}  // namespace qelcli
