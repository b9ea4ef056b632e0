// Whether a media-player service answers, as the plug-in side asks it: shared
// by pavo-avctl and pavo-hbbtv-browser.
#ifndef PAVO_TOOLS_PLUGIN_SIDE_SERVICE_PROBE_H
#define PAVO_TOOLS_PLUGIN_SIDE_SERVICE_PROBE_H

namespace pavo::plugin {

// Asks through an A/V control object of its own: creating one does not tell
// (an object may be made while the service is down), a request does, and
// an existing object may have lost its player with a service that ended and
// then fails every request without asking anyone. Returns true when the
// request got an answer; `*result` (when not null) gets the request's result
// (-1 or -3: nobody serves the queues; -4: no object could be made). Prompt
// when no service runs: the library notices an ended or silent service
// without waiting out its reply bound. REQUIRES: the library is started.
bool service_answers(int* result = nullptr);

}  // namespace pavo::plugin

#endif  // PAVO_TOOLS_PLUGIN_SIDE_SERVICE_PROBE_H
