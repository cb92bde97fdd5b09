// The one-shot mode of a process that answers one request and exits.
#include "tavo/one_shot.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "core/folder_watch.h"

namespace tavo {
namespace {

std::atomic<bool> g_one_shot{false};

// A mapped account file was cut short in place (by a tool that ignores the
// account locks) while this process read it. Nothing of a change is in place
// before its reads are done, so the call just stops.
void OnBusError(int) {
  static const char kText[] =
      "tavo: an account file was cut short while the call read it; the call stopped "
      "(`tavo check` shows the files as they are)\n";
  ssize_t ignored = write(STDERR_FILENO, kText, sizeof kText - 1);
  (void)ignored;
  _exit(1);
}

}  // namespace

void SetOneShotProcess() {
  g_one_shot.store(true, std::memory_order_relaxed);
  internal::ForgoFolderWatch();  // each file is looked at with stat(2) instead
  struct sigaction now = {};
  if (sigaction(SIGBUS, nullptr, &now) == 0 && now.sa_handler == SIG_DFL) {
    struct sigaction on_bus = {};
    on_bus.sa_handler = OnBusError;
    sigemptyset(&on_bus.sa_mask);
    sigaction(SIGBUS, &on_bus, nullptr);
  }
}
bool IsOneShotProcess() { return g_one_shot.load(std::memory_order_relaxed); }

}  // namespace tavo
