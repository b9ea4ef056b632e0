// Log lines of the A/V control layer: the platform's media log at level 3,
// with the process id, the thread id, the source file, the exported
// function's name and the line.
#ifndef PAVO_AV_CONTROL_ADAPTOR_MEDIA_LOG_H
#define PAVO_AV_CONTROL_ADAPTOR_MEDIA_LOG_H

#include <sys/syscall.h>
#include <unistd.h>

#include "pavo_media_log.h"

namespace pavo::avctrl {

// The calling thread's id from the gettid system call, asked once per thread.
inline long log_thread_id() {
  thread_local const long tid = syscall(SYS_gettid);
  return tid;
}

}  // namespace pavo::avctrl

// `function` names the exported function on whose behalf the line is written
// (helpers are handed it by their caller).
#define AVCTRL_LOG_AS(function, ...)                                                             \
  pavo_media_log(PAVO_MEDIA_LOG_LEVEL_INFO, getpid(), ::pavo::avctrl::log_thread_id(), __FILE__, \
                 (function), __LINE__, nullptr, __VA_ARGS__)

// A line of the exported function that is being run.
#define AVCTRL_LOG(...) AVCTRL_LOG_AS(__func__, __VA_ARGS__)

#endif  // PAVO_AV_CONTROL_ADAPTOR_MEDIA_LOG_H
