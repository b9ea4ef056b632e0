// pavo-avctl: a command-line stand-in for the HbbTV plug-in. It links the
// library and drives one A/V control object only through the exported
// functions, as a page would, printing every event on a timeline. See
// usage_text() for the command line and the script format.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "pavo-avctl/command_line.h"
#include "pavo-avctl/script.h"
#include "pavo-avctl/session.h"
#include "plugin_side/service_probe.h"
#include "plugin_side/timeline.h"

namespace {

using namespace pavo::avctl;

// Our own messages, kept on the original standard error when the platform
// log is sent elsewhere.
std::FILE* g_errors = stderr;

void on_signal(int) { request_stop(); }

bool read_script(const std::string& name, std::string& text, std::string& error) {
  std::ostringstream content;
  if (name == "-") {
    content << std::cin.rdbuf();
  } else {
    std::ifstream file(name);
    if (!file) {
      error = "cannot read " + name + ": " + std::strerror(errno);
      return false;
    }
    content << file.rdbuf();
  }
  text = content.str();
  return true;
}

// Sends the platform log's lines (written to file descriptor 2) to `path`,
// keeping a copy of the old standard error for our own messages.
bool redirect_media_log(const std::string& path, std::string& error) {
  const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  const int log = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (saved < 0 || log < 0) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  std::FILE* errors = fdopen(saved, "w");
  if (errors == nullptr || dup2(log, STDERR_FILENO) < 0) {
    error = "cannot redirect standard error: " + std::string(std::strerror(errno));
    return false;
  }
  close(log);
  g_errors = errors;
  return true;
}


}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  switch (parse_command_line(argc, argv, options, error)) {
    case ParseResult::kHelp:
      std::fputs(usage_text().c_str(), stdout);
      return kExitOk;
    case ParseResult::kError:
      std::fprintf(stderr, "pavo-avctl: %s (pavo-avctl --help)\n", error.c_str());
      return kExitUsage;
    case ParseResult::kRun:
      break;
  }
  std::string source = "play " + options.target;
  if (options.mode == Options::Mode::kSession) {
    std::string text;
    if (!read_script(options.target, text, error) || !parse_script(text, options.steps, error)) {
      std::fprintf(stderr, "pavo-avctl: %s: %s\n", options.target.c_str(), error.c_str());
      return kExitUsage;
    }
    source = options.target;
  }
  if (!options.media_log.empty() && !redirect_media_log(options.media_log, error)) {
    std::fprintf(stderr, "pavo-avctl: %s\n", error.c_str());
    return kExitUsage;
  }

  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  const bool live = !options.plain && isatty(STDOUT_FILENO) == 1;
  const long progress = options.progress_ms >= 0 ? options.progress_ms : (live ? 100 : 1000);
  options.session.progress_interval = Millis(progress);
  Timeline timeline(stdout, live);
  timeline.line("start", "pavo-avctl " + source + " (" + std::to_string(options.steps.size()) + " steps)");

  Session session(timeline, options.session);
  if (!session.open(error)) {
    timeline.line("FAIL", error);
    std::fprintf(g_errors, "pavo-avctl: %s\n", error.c_str());
    return kExitNoService;
  }
  int status = kExitOk;
  for (const Step& step : options.steps) {
    if (session.run(step, error)) continue;
    session.end_progress();
    const std::string where =
        step.line > 0 ? source + ":" + std::to_string(step.line) + ": " : std::string();
    timeline.line("FAIL", where + step.text() + ": " + error);
    std::fprintf(g_errors, "pavo-avctl: %s%s: %s\n", where.c_str(), step.text().c_str(), error.c_str());
    if (stop_requested()) {
      status = kExitInterrupted;
    } else if (pavo::plugin::service_answers()) {
      status = kExitStepFailed;
    } else {
      // The step failed because the service ended or stopped answering (the
      // library tells the object so with the error state, connection error).
      const std::string gone = "no media-player service answers any more";
      timeline.line("FAIL", gone);
      std::fprintf(g_errors, "pavo-avctl: %s\n", gone.c_str());
      status = kExitNoService;
    }
    break;
  }
  session.close();
  timeline.line("end", status == kExitOk ? "every step succeeded" : "stopped at a failed step");
  return status;
}
