#include "media_server_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace pavo::e2e {

bool MediaServerProcess::start(const std::string& script, const std::string& root,
                               std::chrono::milliseconds limit, const std::vector<std::string>& extra) {
  stop();
  std::vector<std::string> words = {"python3", script, root, "--port", "0"};
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
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  if (pid_ < 0) {
    close(fds[0]);
    return false;
  }
  // The one line it prints: "media_server: http://127.0.0.1:PORT/".
  std::string out;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const std::string prefix = "media_server: ";
  while (out.find('\n') == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{fds[0], POLLIN, 0};
    const int n = left.count() > 0 ? poll(&p, 1, static_cast<int>(left.count())) : 0;
    if (n < 0 && errno == EINTR) continue;
    char buffer[256];
    const ssize_t got = n > 0 ? read(fds[0], buffer, sizeof buffer) : 0;
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    out.append(buffer, static_cast<std::size_t>(got));
  }
  close(fds[0]);
  if (out.compare(0, prefix.size(), prefix) != 0 || out.find('\n') == std::string::npos) {
    stop();
    return false;
  }
  base_url_ = out.substr(prefix.size(), out.find('\n') - prefix.size());
  return true;
}

void MediaServerProcess::stop() {
  base_url_.clear();
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  for (int i = 0; i < 500 && waitpid(pid_, &status, WNOHANG) == 0; ++i) usleep(10000);
  if (kill(pid_, 0) == 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
}

std::string refused_url(const std::string& path) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 9;  // discard: closed on a test machine
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  if (fd >= 0) close(fd);  // bound, never listened: refused from now on
  return "http://127.0.0.1:" + std::to_string(port) + "/" + path;
}

}  // namespace pavo::e2e
