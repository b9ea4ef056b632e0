// A child process whose standard output the parent reads: started, and its
// output read until an expected text. Shared by the service and media
// server processes of the end-to-end tests and benchmarks. No GoogleTest.
#ifndef PAVO_TESTS_E2E_CHILD_OUTPUT_H
#define PAVO_TESTS_E2E_CHILD_OUTPUT_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace pavo::e2e {

// Runs `words` (searched in PATH) with its standard output on a pipe whose
// read end goes to *out_fd (close-on-exec), pinned to `cpu` when that is not
// negative. Returns the child's pid, or -1 (nothing to close) when it could
// not be started; a program that does not exist exits 127.
pid_t spawn_with_output(std::vector<std::string> words, int* out_fd, int cpu = -1);

// Appends what `fd` delivers to *output until *output contains `text`.
// False at `deadline` or when the writer has closed the pipe first.
bool read_until(int fd, std::string* output, const std::string& text,
                std::chrono::steady_clock::time_point deadline);

}  // namespace pavo::e2e

#endif  // PAVO_TESTS_E2E_CHILD_OUTPUT_H
