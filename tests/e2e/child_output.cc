#include "child_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace pavo::e2e {

pid_t spawn_with_output(std::vector<std::string> words, int* out_fd, int cpu) {
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  int fds[2];
  if (words.empty() || pipe2(fds, O_CLOEXEC) != 0) return -1;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
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
  if (pid < 0) {
    close(fds[0]);
    return -1;
  }
  *out_fd = fds[0];
  return pid;
}

bool read_until(int fd, std::string* output, const std::string& text,
                std::chrono::steady_clock::time_point deadline) {
  while (output->find(text) == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    const int n = poll(&p, 1, static_cast<int>(left.count()));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    char buffer[4096];
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;  // the writer closed its end: it ended
    output->append(buffer, static_cast<std::size_t>(got));
  }
  return true;
}

}  // namespace pavo::e2e
