#include "support/output_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace pavo::test {

OutputCapture::OutputCapture(int fd) : fd_(fd) {
  std::fflush(nullptr);
  char path[] = "/tmp/pavo_capture_XXXXXX";
  file_fd_ = mkstemp(path);
  if (file_fd_ < 0) std::abort();
  unlink(path);
  saved_fd_ = dup(fd_);
  dup2(file_fd_, fd_);
}

OutputCapture::~OutputCapture() {
  std::fflush(nullptr);
  dup2(saved_fd_, fd_);
  close(saved_fd_);
  close(file_fd_);
}

std::string OutputCapture::text() {
  std::fflush(nullptr);
  std::string out;
  char buf[4096];
  off_t pos = 0;
  ssize_t n;
  while ((n = pread(file_fd_, buf, sizeof buf, pos)) > 0) {
    out.append(buf, static_cast<size_t>(n));
    pos += n;
  }
  return out;
}

}  // namespace pavo::test
