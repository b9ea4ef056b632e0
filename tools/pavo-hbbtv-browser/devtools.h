// The DevTools connection to the browser over its debugging pipe: one JSON
// message per NUL-terminated chunk, written to the browser's descriptor 3
// and read from its descriptor 4. Commands carry ids and their answers are
// matched to them; events are handed to one handler. Only this class reads
// the pipe, and only from the thread that calls poll_once (the program's
// one message loop).
//
// Thread safety: none; one thread owns the connection.
#ifndef PAVO_TOOLS_HBBTV_DEVTOOLS_H
#define PAVO_TOOLS_HBBTV_DEVTOOLS_H

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace pavo::hbbtv {

class DevTools {
 public:
  // Answer of a command: `error` is empty on success, else the browser's
  // error message (or "connection closed").
  using Reply = std::function<void(const Json::Value& result, const std::string& error)>;
  // An event: its method, parameters and session ("" for the browser's).
  using EventHandler =
      std::function<void(const std::string& method, const Json::Value& params, const std::string& session)>;

  // Takes ownership of both descriptors (closed by the destructor).
  DevTools(int write_fd, int read_fd);
  ~DevTools();
  DevTools(const DevTools&) = delete;
  DevTools& operator=(const DevTools&) = delete;

  void set_event_handler(EventHandler handler) { on_event_ = std::move(handler); }

  // Sends a command; `reply` (may be empty) runs from poll_once when the
  // answer comes. Returns the command's id; 0 when the pipe is closed (the
  // reply then runs at once with "connection closed").
  int64_t send(const std::string& method, const Json::Value& params, const std::string& session = "",
               Reply reply = nullptr);

  // Sends a command and runs the loop until its answer, the deadline or a
  // closed pipe. True with `result` on success; false with `error`.
  // Events that arrive meanwhile are dispatched as usual.
  bool call(const std::string& method, const Json::Value& params, const std::string& session, Json::Value& result,
            std::string& error, std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));

  // The descriptor to poll for reading.
  int read_fd() const { return read_fd_; }
  // Reads what is available (after poll said so) and dispatches every
  // complete message. False once the browser closed its end.
  bool read_available();
  bool open() const { return open_; }

 private:
  void dispatch(const char* text, std::size_t length);
  void close_all();

  int write_fd_;
  int read_fd_;
  bool open_ = true;
  int64_t next_id_ = 1;
  std::map<int64_t, Reply> pending_;
  std::string inbox_;  // bytes of an unfinished message
  EventHandler on_event_;
  Json::CharReaderBuilder reader_builder_;
  Json::StreamWriterBuilder writer_builder_;
};

}  // namespace pavo::hbbtv

#endif  // PAVO_TOOLS_HBBTV_DEVTOOLS_H
