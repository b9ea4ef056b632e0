#include "service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

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
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(fds[1], STDOUT_FILENO);
    if (cpu >= 0) {
      cpu_set_t set;
      CPU_ZERO(&set);
      CPU_SET(cpu, &set);
      sched_setaffinity(0, sizeof set, &set);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  out_fd_ = fds[0];
  if (pid_ < 0) {
    close(out_fd_);
    out_fd_ = -1;
    return false;
  }
  if (read_until("pavo-media-service: ready\n", std::chrono::steady_clock::now() + limit)) return true;
  stop(std::chrono::milliseconds(0));
  return false;
}

bool ServiceProcess::read_until(const std::string& line, std::chrono::steady_clock::time_point deadline) {
  while (output_.find(line) == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p{out_fd_, POLLIN, 0};
    const int n = poll(&p, 1, static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    char buffer[4096];
    const ssize_t got = read(out_fd_, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;  // the service closed its output: it ended
    output_.append(buffer, static_cast<std::size_t>(got));
  }
  return true;
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
