#include "support/output_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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
  // The captured descriptor writes at the end of the file it shares with file_fd_.
  std::string out(static_cast<size_t>(std::max<off_t>(lseek(file_fd_, 0, SEEK_END), 0)), '\0');
  out.resize(static_cast<size_t>(std::max<ssize_t>(pread(file_fd_, out.data(), out.size(), 0), 0)));
  return out;
}

}  // namespace pavo::test
