// pavo-media-service as a child process: started with a time scale, waited
// for until it prints its ready line, stopped with SIGTERM. Used by the
// end-to-end tests and the end-to-end benchmark. No GoogleTest here.
#ifndef PAVO_TESTS_E2E_SERVICE_PROCESS_H
#define PAVO_TESTS_E2E_SERVICE_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace pavo::e2e {

// The command that runs the service: the program that the environment
// variable PAVO_TEST_MEDIA_SERVICE names (another build's service, for the
// mixed-architecture run), else the build's emulator words (cross builds),
// then the program, as the build configured them.
std::vector<std::string> service_command();

// Not thread-safe; one owner.
class ServiceProcess {
 public:
  ServiceProcess() = default;
  ~ServiceProcess() { stop(); }
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Starts service_command() plus "--time-scale <scale>" and `extra` arguments,
  // pinned to `cpu` when it is not negative, and waits at most `limit` for
  // the ready line. Returns true once the service serves; false (child
  // stopped and reaped) when it exited or stayed silent.
  bool start(double time_scale, std::chrono::milliseconds limit,
             const std::vector<std::string>& extra = {}, int cpu = -1);
  // Sends SIGTERM and waits at most `limit` for the exit (then SIGKILL).
  // Returns the exit status (0 for a clean stop), or -1 when it had to be
  // killed or was not running. Idempotent.
  int stop(std::chrono::milliseconds limit = std::chrono::seconds(10));
  // Everything the service printed on standard output up to now (read
  // while starting and stopping).
  const std::string& output() const { return output_; }
  // The running service's process id; -1 when none runs.
  pid_t pid() const { return pid_; }

  // Faults for the reliability tests. kill_now() ends the service with
  // SIGKILL and reaps it (its queues stay, as after a crash); suspend() and
  // resume() stop and continue it (a hung service).
  void kill_now();
  void suspend();
  void resume();

 private:
  bool read_until(const std::string& line, std::chrono::steady_clock::time_point deadline);
  // Waits at most `limit` for the service to end; its exit status, or -1.
  int reap(std::chrono::milliseconds limit);

  pid_t pid_ = -1;
  int out_fd_ = -1;
  std::string output_;
};

}  // namespace pavo::e2e

#endif  // PAVO_TESTS_E2E_SERVICE_PROCESS_H
