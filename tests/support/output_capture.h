// Captures what the process writes to standard output or standard error.
#ifndef PAVO_TESTS_SUPPORT_OUTPUT_CAPTURE_H
#define PAVO_TESTS_SUPPORT_OUTPUT_CAPTURE_H

#include <string>

namespace pavo::test {

// While alive, file descriptor `fd` (1 or 2) writes into a temporary file.
// Not for concurrent use with other captures of the same descriptor.
class OutputCapture {
 public:
  explicit OutputCapture(int fd);
  ~OutputCapture();
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  // Everything written since the capture began (flushes stdio first).
  std::string text();

 private:
  int fd_;
  int saved_fd_;
  int file_fd_;
};

}  // namespace pavo::test

#endif  // PAVO_TESTS_SUPPORT_OUTPUT_CAPTURE_H
