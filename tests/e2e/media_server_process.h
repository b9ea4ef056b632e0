// scripts/media_server.py as a child process: started on a port of the
// system's choice on 127.0.0.1, waited for until it prints its address,
// stopped with SIGTERM. No GoogleTest here.
#ifndef PAVO_TESTS_E2E_MEDIA_SERVER_PROCESS_H
#define PAVO_TESTS_E2E_MEDIA_SERVER_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace pavo::e2e {

// Not thread-safe; one owner.
class MediaServerProcess {
 public:
  MediaServerProcess() = default;
  ~MediaServerProcess() { stop(); }
  MediaServerProcess(const MediaServerProcess&) = delete;
  MediaServerProcess& operator=(const MediaServerProcess&) = delete;

  // Runs `script` (the server) on directory `root` with `extra` options and
  // waits at most `limit` for its address. Returns true once it serves;
  // false (child stopped and reaped) when it exited or stayed silent.
  bool start(const std::string& script, const std::string& root, std::chrono::milliseconds limit,
             const std::vector<std::string>& extra = {});
  // "http://127.0.0.1:PORT/" once started, empty otherwise.
  const std::string& base_url() const { return base_url_; }
  // Sends SIGTERM and reaps the server (SIGKILL after 5 s). Idempotent.
  void stop();

 private:
  pid_t pid_ = -1;
  std::string base_url_;
};

// A URL on 127.0.0.1 that refuses connections: a port that was free a
// moment ago.
std::string refused_url(const std::string& path);

}  // namespace pavo::e2e

#endif  // PAVO_TESTS_E2E_MEDIA_SERVER_PROCESS_H
