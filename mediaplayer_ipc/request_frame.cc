#include "mediaplayer_ipc/request_frame.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "base/result_codes.h"
#include "mediaplayer_ipc/json_input.h"
#include "mediaplayer_ipc/log_records.h"

namespace pavo::mediaplayer {
namespace {

// One converted reply member, held until every member has converted.
struct Converted {
  int i = 0;
  unsigned u = 0;
  uint64_t u64 = 0;
  double d = 0.0;
  bool b = false;
  std::string s;
};

}  // namespace

int refuse_null_argument(const char* function, const char* file, int line) {
  log_enter(function, file, line);
  log_error(function);
  return kFailed;
}

PointerText::PointerText(const void* pointer) {
  std::memset(text, 0, sizeof text);
  std::snprintf(text, sizeof text, "%p", pointer);
}

Command::Command(const char* function, int event_type, const char* file, int line)
    : function_(function), file_(file), line_(line) {
  request_.add_int("event_type", event_type);
}

Command& Command::player(unsigned player_id) {
  request_.add_uint("player_id", player_id);
  return *this;
}
Command& Command::with(const char* name, int value) {
  request_.add_int(name, value);
  return *this;
}
Command& Command::with(const char* name, unsigned value) {
  request_.add_uint(name, value);
  return *this;
}
Command& Command::with(const char* name, double value) {
  request_.add_double(name, value);
  return *this;
}
Command& Command::with(const char* name, bool value) {
  request_.add_bool(name, value);
  return *this;
}
Command& Command::with(const char* name, const char* text) {
  request_.add_text(name, text, std::strlen(text));
  return *this;
}
Command& Command::with(const char* name, const std::string& text) {
  request_.add_text(name, text.data(), text.size());
  return *this;
}
Command& Command::with(const char* name, const PointerText& pointer) {
  return with(name, pointer.text);
}

Command& Command::add_output(const char* name, Read read, void* target) {
  assert(output_count_ < kMaxOutputs);
  if (output_count_ < kMaxOutputs) outputs_[output_count_++] = Output{name, read, target};
  return *this;
}
Command& Command::read(const char* name, int* out) { return add_output(name, Read::kInt, out); }
Command& Command::read(const char* name, unsigned* out) { return add_output(name, Read::kUInt, out); }
Command& Command::read(const char* name, uint64_t* out) {
  return add_output(name, Read::kLargestUInt, out);
}
Command& Command::read(const char* name, double* out) { return add_output(name, Read::kDouble, out); }
Command& Command::read(const char* name, bool* out) { return add_output(name, Read::kBool, out); }
Command& Command::read(const char* name, std::string* out) {
  return add_output(name, Read::kString, out);
}
Command& Command::read_signed(const char* name, unsigned* out) {
  return add_output(name, Read::kSignedToUInt, out);
}
Command& Command::ignore_ret() {
  ignore_ret_ = true;
  return *this;
}
Command& Command::no_enter_record() {
  enter_record_ = false;
  return *this;
}
Command& Command::no_leave_record() {
  leave_record_ = false;
  return *this;
}

void Command::render(std::string* text) const { request_.render(text); }

int Command::read_reply(const char* text) {
  try {
    // The reply's length field is not trusted: the text ends at its NUL.
    Json::Value root;
    if (!parse_object(text, std::strlen(text), &root)) {
      log_error(function_);
      return kFailed;
    }
    return read_object(root);
  } catch (const std::bad_alloc&) {  // (a cancelled thread's forced unwind passes)
    log_error(function_);
    return kNoMemory;
  }
}

int Command::read_object(const Json::Value& root) {
  Converted converted[kMaxOutputs];
  bool readable = true;
  for (std::size_t k = 0; k < output_count_ && readable; ++k) {
    const Output& o = outputs_[k];
    Converted& c = converted[k];
    switch (o.read) {
      case Read::kInt: readable = read_int(root, o.name, &c.i); break;
      case Read::kUInt: readable = read_uint(root, o.name, &c.u); break;
      case Read::kLargestUInt: readable = read_largest_uint(root, o.name, &c.u64); break;
      case Read::kDouble: readable = read_double(root, o.name, &c.d); break;
      case Read::kBool: readable = read_bool(root, o.name, &c.b); break;
      case Read::kString: readable = read_string(root, o.name, &c.s); break;
      case Read::kSignedToUInt: readable = read_int(root, o.name, &c.i); break;
    }
  }
  int ret = 0;
  if (readable && !ignore_ret_) readable = read_int(root, "ret", &ret);
  if (!readable) {
    log_error(function_);
    return kFailed;
  }
  for (std::size_t k = 0; k < output_count_; ++k) {
    const Output& o = outputs_[k];
    Converted& c = converted[k];
    switch (o.read) {
      case Read::kInt: *static_cast<int*>(o.target) = c.i; break;
      case Read::kUInt: *static_cast<unsigned*>(o.target) = c.u; break;
      case Read::kLargestUInt: *static_cast<uint64_t*>(o.target) = c.u64; break;
      case Read::kDouble: *static_cast<double*>(o.target) = c.d; break;
      case Read::kBool: *static_cast<bool*>(o.target) = c.b; break;
      case Read::kString: *static_cast<std::string*>(o.target) = std::move(c.s); break;
      case Read::kSignedToUInt: *static_cast<unsigned*>(o.target) = static_cast<unsigned>(c.i); break;
    }
  }
  replied_ = true;
  if (leave_record_) log_leave(function_, file_, line_);
  return ret;
}

}  // namespace pavo::mediaplayer
