#include "media_server_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_output.h"

namespace pavo::e2e {

bool MediaServerProcess::start(const std::string& script, const std::string& root,
                               std::chrono::milliseconds limit, const std::vector<std::string>& extra) {
  stop();
  std::vector<std::string> words = {"python3", script, root, "--port", "0"};
  words.insert(words.end(), extra.begin(), extra.end());
  int out_fd = -1;
  pid_ = spawn_with_output(words, &out_fd);
  if (pid_ < 0) return false;
  // The one line it prints: "media_server: http://127.0.0.1:PORT/".
  const std::string prefix = "media_server: ";
  std::string out;
  const bool said = read_until(out_fd, &out, "\n", std::chrono::steady_clock::now() + limit);
  close(out_fd);
  if (!said || out.compare(0, prefix.size(), prefix) != 0) {
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
