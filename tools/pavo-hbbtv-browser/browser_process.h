// The browser as a child process: Chromium started directly (not through a
// wrapper script, so that the process we wait for is the browser), with a
// fresh profile directory, in a process group of its own, and with its
// DevTools pipe on descriptors 3 (commands in) and 4 (messages out).
//
// Thread safety: none; one thread owns it.
#ifndef PAVO_TOOLS_HBBTV_BROWSER_PROCESS_H
#define PAVO_TOOLS_HBBTV_BROWSER_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace pavo::hbbtv {

struct BrowserSettings {
  std::string executable;  // empty: the headless shell, or chromium with `show`
  bool show = false;       // a window on the display instead of headless
  int width = 1280;
  int height = 720;
};

class BrowserProcess {
 public:
  BrowserProcess() = default;
  ~BrowserProcess();  // stop()
  BrowserProcess(const BrowserProcess&) = delete;
  BrowserProcess& operator=(const BrowserProcess&) = delete;

  // Makes the profile directory and starts the browser. True with the
  // program's ends of the pipe (write_fd: commands, read_fd: messages);
  // false with `why` (nothing left behind).
  bool start(const BrowserSettings& settings, int& write_fd, int& read_fd, std::string& why);

  // True while the browser process has not ended (reaps it when it has).
  bool running();

  // Ends the browser and its helpers: waits up to `grace_ms` for it to end
  // by itself (after the caller closed the pipe or sent Browser.close), then
  // SIGTERM, then SIGKILL to the whole process group; removes the profile
  // directory. Safe to call more than once.
  void stop(int grace_ms = 3000);

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  std::string profile_;
};

// The executable that BrowserSettings selects.
std::string browser_executable(const BrowserSettings& settings);

}  // namespace pavo::hbbtv

#endif  // PAVO_TOOLS_HBBTV_BROWSER_PROCESS_H
