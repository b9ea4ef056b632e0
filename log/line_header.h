// The parts of a printed log line that every line type shares.
#ifndef PAVO_LOG_LINE_HEADER_H
#define PAVO_LOG_LINE_HEADER_H

namespace pavo::log {

// Header size, terminating NUL included; longer headers are cut.
inline constexpr int kHeaderSize = 100;

// Name of an effective level in the header: "error", "info" or "unknown".
const char* level_name(int effective_level);

// Writes "time=D/M/YYYY h:m:s,timestamp=T,pid=P,tid=K,logtype=NAME" for the
// calling thread and the current local time into `out`. Costs a clock read
// and two system calls: call it only for a line that will be printed.
void format_header(char (&out)[kHeaderSize], int effective_level);

// What follows the last '/' of `path` (all of it without one); "(null)" for
// null, as printf would print it.
const char* file_name_of(const char* path);

}  // namespace pavo::log

#endif  // PAVO_LOG_LINE_HEADER_H
