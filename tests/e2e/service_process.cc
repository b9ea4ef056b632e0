#include "service_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "child_output.h"

namespace pavo::e2e {

std::vector<std::string> service_command() {
  if (const char* other = std::getenv("PAVO_TEST_MEDIA_SERVICE")) return {other};
  // PAVO_MEDIA_SERVICE_COMMAND: a '|'-separated list of words set by the build.
  std::vector<std::string> words;
  std::stringstream list(PAVO_MEDIA_SERVICE_COMMAND);
  for (std::string word; std::getline(list, word, '|');) {
    if (!word.empty()) words.push_back(word);
  }
  return words;
}

bool ServiceProcess::start(double time_scale, std::chrono::milliseconds limit,
                           const std::vector<std::string>& extra, int cpu) {
  stop();
  output_.clear();
  std::vector<std::string> words = service_command();
  char scale[32];
  std::snprintf(scale, sizeof scale, "%g", time_scale);
  words.insert(words.end(), {"--time-scale", scale});
  words.insert(words.end(), extra.begin(), extra.end());
  pid_ = spawn_with_output(words, &out_fd_, cpu);
  if (pid_ < 0) return false;
  if (read_until("pavo-media-service: ready\n", std::chrono::steady_clock::now() + limit)) return true;
  stop(std::chrono::milliseconds(0));
  return false;
}

bool ServiceProcess::read_until(const std::string& line, std::chrono::steady_clock::time_point deadline) {
  return pavo::e2e::read_until(out_fd_, &output_, line, deadline);
}

int ServiceProcess::stop(std::chrono::milliseconds limit) {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  // The stopped line comes last; the pipe's end follows the exit.
  read_until("pavo-media-service: stopped\n", std::chrono::steady_clock::now() + limit);
  const int result = reap(limit);
  kill_now();  // still running: it had to be killed
  return result;
}

void ServiceProcess::kill_now() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  reap(std::chrono::seconds(10));
}

void ServiceProcess::suspend() {
  if (pid_ <= 0 || kill(pid_, SIGSTOP) != 0) return;
  int status = 0;  // returns once it has stopped
  while (waitpid(pid_, &status, WUNTRACED) < 0 && errno == EINTR) {
  }
}

void ServiceProcess::resume() {
  if (pid_ > 0) kill(pid_, SIGCONT);
}

int ServiceProcess::reap(std::chrono::milliseconds limit) {
  if (pid_ <= 0) return -1;
  int status = 0;
  pid_t done = 0;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while ((done = waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
    usleep(1000);
  }
  if (done != pid_) return -1;
  pid_ = -1;
  close(out_fd_);
  out_fd_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace pavo::e2e
