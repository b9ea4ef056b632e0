// Log lines of the A/V control layer: the platform's media log at level 3,
// with the process id, the thread id, the source file, the exported
// function's name and the line.
#ifndef PAVO_AV_CONTROL_ADAPTOR_MEDIA_LOG_H
#define PAVO_AV_CONTROL_ADAPTOR_MEDIA_LOG_H

#include "pavo_media_log.h"

namespace pavo::avctrl {

// The process id (getpid) and the calling thread's id (the gettid system
// call), each asked once and kept: every event logs several lines, and each
// system call costs about as much as a line. A forked child asks again.
int log_process_id();
long log_thread_id();

}  // namespace pavo::avctrl

// `function` names the exported function on whose behalf the line is written
// (helpers are handed it by their caller).
#define AVCTRL_LOG_AS(function, ...)                                                       \
  pavo_media_log(PAVO_MEDIA_LOG_LEVEL_INFO, ::pavo::avctrl::log_process_id(),              \
                 ::pavo::avctrl::log_thread_id(), __FILE__, (function), __LINE__, nullptr, \
                 __VA_ARGS__)

// A line of the exported function that is being run.
#define AVCTRL_LOG(...) AVCTRL_LOG_AS(__func__, __VA_ARGS__)

#endif  // PAVO_AV_CONTROL_ADAPTOR_MEDIA_LOG_H
