#include "pavo-hbbtv-browser/browser_process.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace pavo::hbbtv {
namespace {

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
  ::remove(path);
  return 0;
}

void remove_tree(const std::string& path) {
  if (!path.empty()) ::nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace

std::string browser_executable(const BrowserSettings& settings) {
  if (!settings.executable.empty()) return settings.executable;
  return settings.show ? "/usr/lib/chromium/chromium" : "/usr/lib/chromium/chromium-headless-shell";
}

BrowserProcess::~BrowserProcess() { stop(); }

bool BrowserProcess::start(const BrowserSettings& settings, int& write_fd, int& read_fd, std::string& why) {
  const std::string executable = browser_executable(settings);
  if (::access(executable.c_str(), X_OK) != 0) {
    why = executable + ": " + std::strerror(errno) + " (scripts/setup.sh installs chromium-headless-shell)";
    return false;
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pavo-hbbtv-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    why = "cannot make a profile directory: " + std::string(std::strerror(errno));
    return false;
  }
  profile_ = pattern;

  int to_browser[2];
  int from_browser[2];
  if (::pipe2(to_browser, O_CLOEXEC) != 0) {
    why = "pipe: " + std::string(std::strerror(errno));
    remove_tree(profile_);
    return false;
  }
  if (::pipe2(from_browser, O_CLOEXEC) != 0) {
    why = "pipe: " + std::string(std::strerror(errno));
    ::close(to_browser[0]);
    ::close(to_browser[1]);
    remove_tree(profile_);
    return false;
  }

  std::vector<std::string> args = {executable,
                                   "--remote-debugging-pipe",
                                   "--user-data-dir=" + profile_,
                                   "--no-first-run",
                                   "--no-default-browser-check",
                                   "--disable-dev-shm-usage",
                                   "--disable-background-networking",
                                   "--disable-component-update",
                                   "--disable-sync",
                                   "--disable-gpu",
                                   "--disable-extensions",
                                   "--mute-audio",
                                   "--hide-scrollbars",
                                   "--autoplay-policy=no-user-gesture-required",
                                   "--window-size=" + std::to_string(settings.width) + "," +
                                       std::to_string(settings.height)};
  if (::geteuid() == 0) args.push_back("--no-sandbox");
  if (!settings.show) args.push_back("--headless");
  args.push_back("about:blank");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid < 0) {
    why = "fork: " + std::string(std::strerror(errno));
    for (int fd : {to_browser[0], to_browser[1], from_browser[0], from_browser[1]}) ::close(fd);
    remove_tree(profile_);
    return false;
  }
  if (pid == 0) {
    // The child: its own process group (so that its helpers end with it),
    // the pipe on 3 and 4, its chatter (D-Bus, GPU probing) to /dev/null so
    // that the timeline stays readable, then the browser.
    ::setpgid(0, 0);
    const int in = ::fcntl(to_browser[0], F_DUPFD, 10);
    const int out = ::fcntl(from_browser[1], F_DUPFD, 10);
    if (in < 0 || out < 0 || ::dup2(in, 3) < 0 || ::dup2(out, 4) < 0) ::_exit(127);
    const int devnull = ::open("/dev/null", O_RDWR);
    if (devnull >= 0) {
      ::dup2(devnull, STDIN_FILENO);
      ::dup2(devnull, STDOUT_FILENO);
      ::dup2(devnull, STDERR_FILENO);
    }
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::setpgid(pid, pid);
  pid_ = pid;
  reaped_ = false;
  ::close(to_browser[0]);
  ::close(from_browser[1]);
  write_fd = to_browser[1];
  read_fd = from_browser[0];
  return true;
}

bool BrowserProcess::running() {
  if (pid_ <= 0 || reaped_) return false;
  int status = 0;
  const pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done == pid_ || (done < 0 && errno == ECHILD)) reaped_ = true;
  return !reaped_;
}

void BrowserProcess::stop(int grace_ms) {
  if (pid_ > 0) {
    const auto wait_end = [this](int ms) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
      while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      return true;
    };
    if (!wait_end(grace_ms)) {
      ::kill(pid_, SIGTERM);
      if (!wait_end(2000)) {
        ::kill(-pid_, SIGKILL);
        wait_end(2000);
      }
    }
    // Helpers that outlived the browser (they share its process group).
    ::kill(-pid_, SIGKILL);
    pid_ = -1;
  }
  remove_tree(profile_);
  profile_.clear();
}

}  // namespace pavo::hbbtv
