#include "pavo-hbbtv-browser/devtools.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace pavo::hbbtv {
namespace {

// A message larger than this is dropped (screenshots are the largest
// answers: a 4K PNG in base64 stays well below it).
constexpr std::size_t kMaxMessage = 256u << 20;

bool write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) {
        pollfd p{fd, POLLOUT, 0};
        ::poll(&p, 1, 100);
        continue;
      }
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

DevTools::DevTools(int write_fd, int read_fd) : write_fd_(write_fd), read_fd_(read_fd) {
  writer_builder_["indentation"] = "";
  writer_builder_["emitUTF8"] = true;
}

DevTools::~DevTools() { close_all(); }

void DevTools::close_all() {
  if (write_fd_ >= 0) ::close(write_fd_);
  if (read_fd_ >= 0) ::close(read_fd_);
  write_fd_ = read_fd_ = -1;
  open_ = false;
}

int64_t DevTools::send(const std::string& method, const Json::Value& params, const std::string& session,
                       Reply reply) {
  if (!open_) {
    if (reply) reply(Json::Value(), "connection closed");
    return 0;
  }
  const int64_t id = next_id_++;
  Json::Value message;
  message["id"] = static_cast<Json::Int64>(id);
  message["method"] = method;
  message["params"] = params.isNull() ? Json::Value(Json::objectValue) : params;
  if (!session.empty()) message["sessionId"] = session;
  std::string text = Json::writeString(writer_builder_, message);
  text.push_back('\0');
  if (!write_all(write_fd_, text.data(), text.size())) {
    open_ = false;
    if (reply) reply(Json::Value(), "connection closed");
    return 0;
  }
  if (reply) pending_.emplace(id, std::move(reply));
  return id;
}

bool DevTools::call(const std::string& method, const Json::Value& params, const std::string& session,
                    Json::Value& result, std::string& error, std::chrono::milliseconds timeout) {
  bool done = false;
  bool ok = false;
  const int64_t id = send(method, params, session, [&](const Json::Value& r, const std::string& e) {
    done = true;
    ok = e.empty();
    if (ok) result = r;
    else error = e;
  });
  if (id == 0) return false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      pending_.erase(id);
      error = method + ": no answer in time";
      return false;
    }
    pollfd p{read_fd_, POLLIN, 0};
    const int n = ::poll(&p, 1, static_cast<int>(std::min<long>(left.count(), 100)));
    if (n < 0 && errno != EINTR) break;
    if (n > 0 && !read_available()) break;
  }
  if (!done) {
    pending_.erase(id);
    error = "connection closed";
  }
  return ok;
}

bool DevTools::read_available() {
  if (!open_) return false;
  char buffer[65536];
  const ssize_t n = ::read(read_fd_, buffer, sizeof buffer);
  if (n < 0) return errno == EINTR || errno == EAGAIN;
  if (n == 0) {
    open_ = false;
    // Answers that will never come.
    auto pending = std::move(pending_);
    pending_.clear();
    for (auto& [id, reply] : pending) reply(Json::Value(), "connection closed");
    return false;
  }
  std::size_t start = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
    if (buffer[i] != '\0') continue;
    if (inbox_.empty()) {
      dispatch(buffer + start, i - start);
    } else {
      inbox_.append(buffer + start, i - start);
      dispatch(inbox_.data(), inbox_.size());
      inbox_.clear();
    }
    start = i + 1;
  }
  if (start < static_cast<std::size_t>(n)) {
    inbox_.append(buffer + start, static_cast<std::size_t>(n) - start);
    if (inbox_.size() > kMaxMessage) inbox_.clear();
  }
  return true;
}

void DevTools::dispatch(const char* text, std::size_t length) {
  Json::Value message;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(reader_builder_.newCharReader());
  if (!reader->parse(text, text + length, &message, &errors) || !message.isObject()) return;
  const Json::Value& id = message["id"];
  if (id.isIntegral()) {
    auto it = pending_.find(id.asInt64());
    if (it == pending_.end()) return;
    Reply reply = std::move(it->second);
    pending_.erase(it);
    const Json::Value& error = message["error"];
    if (error.isObject()) reply(Json::Value(), error["message"].isString() ? error["message"].asString() : "error");
    else reply(message["result"], std::string());
    return;
  }
  const Json::Value& method = message["method"];
  if (method.isString() && on_event_) {
    const Json::Value& session = message["sessionId"];
    on_event_(method.asString(), message["params"], session.isString() ? session.asString() : std::string());
  }
}

}  // namespace pavo::hbbtv
