// pavo-hbbtv-browser: plays the HbbTV plug-in's role for Chromium. A page's
// A/V Control and DRM agent objects are backed by the library (through its
// exported functions only) and a running media-player service; the program
// prints a timeline of what crossed. See usage_text() for the command line.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "pavo-hbbtv-browser/command_line.h"
#include "pavo-hbbtv-browser/launcher.h"
#include "pavo_avctrl.h"
#include "plugin_side/service_probe.h"
#include "plugin_side/timeline.h"

namespace {

void on_signal(int) { pavo::hbbtv::request_stop(); }

}  // namespace

int main(int argc, char** argv) {
  using namespace pavo::hbbtv;
  Options options;
  std::string error;
  switch (parse_command_line(argc, argv, options, error)) {
    case ParseResult::kHelp:
      std::fputs(usage_text().c_str(), stdout);
      return kExitOk;
    case ParseResult::kError:
      std::fprintf(stderr, "pavo-hbbtv-browser: %s (pavo-hbbtv-browser --help)\n", error.c_str());
      return kExitUsage;
    case ParseResult::kRun:
      break;
  }

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a browser that ended: its pipe's write fails instead

  pavo::plugin::Timeline timeline(stdout, false);
  timeline.line("start", "pavo-hbbtv-browser " + options.url);
  Pavo_AVCtrl_Initialize();
  int probe = 0;
  if (!pavo::plugin::service_answers(&probe)) {
    timeline.line("FAIL", "no media-player service answers (request result " + std::to_string(probe) +
                              "): is pavo-media-service running in this IPC namespace?");
    Pavo_AVCtrl_Finalize();
    return kExitNoService;
  }
  const int status = run_browser(options, timeline);
  Pavo_AVCtrl_Finalize();
  timeline.line("end", "exit status " + std::to_string(status));
  return status;
}
