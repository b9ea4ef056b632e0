// The result codes of the library's interface, as every layer returns them.
// Each layer maps its own failures to these in one place; none interprets
// another layer's codes beyond passing them up.
#ifndef PAVO_BASE_RESULT_CODES_H
#define PAVO_BASE_RESULT_CODES_H

namespace pavo {

constexpr int kOk = 0;
// A message too long, a send or receive that failed, a reply that is not
// JSON, an operation that has no single object to act on.
constexpr int kFailed = -1;
// A null or bad argument; a queue that cannot be opened or created.
constexpr int kBadArgument = -3;
// Out of memory.
constexpr int kNoMemory = -4;
// A thread (a server's receive thread) could not be started.
constexpr int kNoThread = -5;

}  // namespace pavo

#endif  // PAVO_BASE_RESULT_CODES_H
