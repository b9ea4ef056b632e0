// The request frame: the one exchange that every request/reply command of
// the media-player client and the DRM agent runs.
//
// A command names its number, its request members and the reply members it
// reads into its out-parameters, then calls run():
//
//   return Command(__func__, 10).player(id).read("current_time", time).run();
//
// run() logs an Enter record (unless the command declines it), renders the
// request as styled JSON text, sends it on the request client and blocks for
// the reply (at most the transport's reply time-out), parses it and, if it
// is a readable JSON object, writes every out-parameter and returns "ret".
// (The exchange itself is request_exchange.cc; the rest is
// request_frame.cc.) Results:
//   - the transport's code, unchanged, when the exchange fails;
//   - -1 when the reply is empty, not JSON, not an object, or a member read
//     (or "ret") cannot be converted as jsoncpp converts it;
//   - -4 when memory runs out on the way;
//   - otherwise "ret" read with asInt (0 when absent; 0 for every readable
//     reply where the command ignores "ret").
// Out-parameters are written all together, only for a readable reply and
// then whatever "ret" says; otherwise none is touched. Each failure logs an
// error record naming the line that failed; a readable reply logs a Leave
// record unless the command declines it. Nothing throws.
//
// Irregularities of single commands are stated at their call site:
// read_signed() (a signed conversion stored in an unsigned), ignore_ret(),
// no_enter_record(), no_leave_record().
//
// Thread safety: a Command is built and run by one thread; any number of
// threads may run commands at once (the transport serialises the exchanges).
// The texts passed to with() must outlive run().
#ifndef PAVO_MEDIAPLAYER_IPC_REQUEST_FRAME_H
#define PAVO_MEDIAPLAYER_IPC_REQUEST_FRAME_H

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "mediaplayer_ipc/styled_object.h"

namespace pavo::mediaplayer {

// Logs the Enter and error records of `function` refusing a null argument;
// returns -1, the result of such a refusal.
int refuse_null_argument(const char* function, const char* file = __builtin_FILE(),
                         int line = __builtin_LINE());

// The "%p" text of a pointer, as the protocol carries handles and user data:
// "0x" and lower-case hexadecimal digits, or "(nil)" for null.
struct PointerText {
  explicit PointerText(const void* pointer);
  char text[32];
};

class Command {
 public:
  // `function` is the command's exported name, which its log records carry
  // together with the caller's file and line.
  Command(const char* function, int event_type, const char* file = __builtin_FILE(),
          int line = __builtin_LINE());
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // ---- Request members (rendered in name order, as jsoncpp orders them) ----
  Command& player(unsigned player_id);  // "player_id"
  Command& with(const char* name, int value);
  Command& with(const char* name, unsigned value);
  Command& with(const char* name, double value);
  Command& with(const char* name, bool value);
  Command& with(const char* name, const char* text);  // REQUIRES: text not null
  Command& with(const char* name, const std::string& text);
  Command& with(const char* name, const PointerText& pointer);

  // ---- Reply members, read in this order, and where they go ----
  Command& read(const char* name, int* out);            // asInt
  Command& read(const char* name, unsigned* out);       // asUInt
  Command& read(const char* name, uint64_t* out);       // asLargestUInt
  Command& read(const char* name, double* out);         // asDouble
  Command& read(const char* name, bool* out);           // asBool
  Command& read(const char* name, std::string* out);    // asString, moved in
  Command& read_signed(const char* name, unsigned* out);  // asInt, stored unsigned

  // ---- Irregularities ----
  Command& ignore_ret();       // the result of a readable reply is 0
  Command& no_enter_record();  // run() logs no Enter record
  Command& no_leave_record();  // a readable reply logs no Leave record

  // Runs the exchange once. See the file comment for the results.
  int run();
  // After run(): whether a readable reply came (and the outputs were written).
  bool replied() const { return replied_; }

  // The two halves of run() around the exchange, for tests, fuzzing and
  // benchmarks of the frame's own work:
  // Replaces *text with the request text. Throws std::bad_alloc only.
  void render(std::string* text) const;
  // Reads `text` (NUL-terminated) as run() reads a reply that arrived:
  // returns -1, -4 or "ret" and writes the outputs as described above.
  int read_reply(const char* text);

 private:
  enum class Read : uint8_t { kInt, kUInt, kLargestUInt, kDouble, kBool, kString, kSignedToUInt };
  struct Output {
    const char* name;
    Read read;
    void* target;  // int*, unsigned*, uint64_t*, double*, bool*, std::string* as `read` says
  };
  static constexpr std::size_t kMaxOutputs = 12;

  Command& add_output(const char* name, Read read, void* target);
  int read_object(const Json::Value& reply);

  const char* function_;
  const char* file_;
  int line_;
  StyledObject request_;
  Output outputs_[kMaxOutputs];
  std::size_t output_count_ = 0;
  bool ignore_ret_ = false;
  bool enter_record_ = true;
  bool leave_record_ = true;
  bool replied_ = false;
};

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_REQUEST_FRAME_H
