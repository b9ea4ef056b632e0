// One run of pavo-hbbtv-browser: the browser started, the page's objects
// installed before any page script runs, the page opened and the message
// loop run until the run ends as asked (time, URL, interruption, the page
// closing itself) or fails; then the objects, the browser and its profile
// are cleaned up.
//
// Thread safety: run() on one thread; request_stop() from a signal handler.
#ifndef PAVO_TOOLS_HBBTV_LAUNCHER_H
#define PAVO_TOOLS_HBBTV_LAUNCHER_H

#include <string>

#include "pavo-hbbtv-browser/command_line.h"
#include "plugin_side/timeline.h"

namespace pavo::hbbtv {

// Asks the running loop to end (async-signal-safe).
void request_stop();

// The page-side script (web/), wrapped with the binding's and the
// receiver's names.
std::string page_script(const std::string& binding, const std::string& receiver);

// Runs `options` against the already initialised library. Returns the exit
// status (command_line.h).
int run_browser(const Options& options, plugin::Timeline& timeline);

}  // namespace pavo::hbbtv

#endif  // PAVO_TOOLS_HBBTV_LAUNCHER_H
