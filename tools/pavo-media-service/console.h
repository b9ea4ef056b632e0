// The service's output: the ready and stopped lines, the verbose trace of
// requests, replies and events (standard output), and complaints about bad
// input (standard error). One write per line; safe from any thread.
#ifndef PAVO_MEDIA_SERVICE_CONSOLE_H
#define PAVO_MEDIA_SERVICE_CONSOLE_H

namespace pavo::service {

// Whether trace() prints; set once at start, before any thread runs.
void set_verbose(bool verbose);
bool verbose();

// A line on standard output, flushed.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A line on standard output when verbose, flushed.
void trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A line on standard error, prefixed with the program's name.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_CONSOLE_H
