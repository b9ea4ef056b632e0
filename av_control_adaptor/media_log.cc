#include "av_control_adaptor/media_log.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace pavo::avctrl {
namespace {

std::atomic<int> g_process_id{0};  // 0: not asked yet
thread_local long t_thread_id = 0;

// In a forked child both ids are new; the handler runs on the child's one
// thread, the one that forked, whose kept id it clears.
void forget_ids() {
  g_process_id.store(0, std::memory_order_relaxed);
  t_thread_id = 0;
}

void clear_ids_on_fork() {
  static const int registered = pthread_atfork(nullptr, nullptr, forget_ids);
  (void)registered;
}

}  // namespace

int log_process_id() {
  int pid = g_process_id.load(std::memory_order_relaxed);
  if (pid == 0) {
    clear_ids_on_fork();
    pid = getpid();
    g_process_id.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

long log_thread_id() {
  if (t_thread_id == 0) {
    clear_ids_on_fork();
    t_thread_id = syscall(SYS_gettid);
  }
  return t_thread_id;
}

}  // namespace pavo::avctrl
