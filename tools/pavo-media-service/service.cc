#include "pavo-media-service/service.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "pavo-media-service/console.h"
#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

// Events that may wait for the library's event queue before the oldest is
// dropped: keeps the service's memory bounded when the library stops reading.
constexpr std::size_t kMaxOutgoingEvents = 4096;

std::string reply_text(Json::Value reply, int ret) {
  reply["ret"] = ret;
  return compact_json(reply);
}

}  // namespace

Service::Service(double time_scale, Endpoints* endpoints, EngineFactory engine)
    : endpoints_(endpoints), state_(time_scale, std::move(engine)) {}

void Service::start() {
  std::lock_guard<std::mutex> lock(mu_);
  if (clock_.joinable()) return;
  stopping_ = false;
  {
    std::lock_guard<std::mutex> out_lock(out_mu_);
    sender_stopping_ = false;
  }
  sender_ = std::thread(&Service::run_sender, this);
  clock_ = std::thread(&Service::run_clock, this);
}

void Service::stop() {
  {
    std::lock_guard<std::mutex> lock(out_mu_);
    sender_stopping_ = true;
  }
  out_ready_.notify_all();
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (clock_.joinable()) clock_.join();
  if (sender_.joinable()) sender_.join();
  // A library that reads no events would cost every waiting event the
  // transport's whole resend policy: stopping gives them up instead.
  std::lock_guard<std::mutex> lock(out_mu_);
  if (!outgoing_.empty()) complain("stopping: %zu event(s) not sent", outgoing_.size());
  outgoing_.clear();
}

void Service::send(Outbox* out) {
  for (const Json::Value& event : *out) {
    const std::string text = compact_json(event);
    const int family = event["event_type"].asInt();
    if (family == kPlayerEvent) {
      const int kind = event["event"].asInt();
      const char* detail = kind == kStateChangeEvent ? state_name(event["data1"].asInt()) : "";
      trace("event  %s %s %s", player_event_name(kind), detail, text.c_str());
    } else {
      trace("event  %s %s", family == kDrmEvent ? "drm" : "media-sync", text.c_str());
    }
    std::lock_guard<std::mutex> lock(out_mu_);
    if (outgoing_.size() >= kMaxOutgoingEvents) {
      complain("%zu events wait to be sent; the oldest is dropped: %s", outgoing_.size(),
               outgoing_.front().c_str());
      outgoing_.pop_front();
    }
    outgoing_.push_back(text);
  }
  if (!out->empty()) out_ready_.notify_one();
  out->clear();
  wake_.notify_all();  // deadlines may have moved
}

void Service::run_sender() {
  std::unique_lock<std::mutex> lock(out_mu_);
  for (;;) {
    out_ready_.wait(lock, [this] { return sender_stopping_ || !outgoing_.empty(); });
    if (sender_stopping_) return;  // stop() gives up what still waits
    const std::string text = std::move(outgoing_.front());
    outgoing_.pop_front();
    lock.unlock();
    const int rc = endpoints_->send_event(text);
    if (rc != 0) complain("event not sent (transport result %d): %s", rc, text.c_str());
    lock.lock();
  }
}

void Service::run_clock() {
  std::unique_lock<std::mutex> lock(mu_);
  Outbox out;
  while (!stopping_) {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& entry : state_.players) next = std::min(next, entry.second->next_deadline());
    if (next == Clock::time_point::max()) {
      wake_.wait(lock);
    } else if (Clock::now() < next) {
      wake_.wait_until(lock, next);
    }
    const Clock::time_point now = Clock::now();
    for (const auto& entry : state_.players) entry.second->advance(now, &out);
    if (!out.empty()) send(&out);
  }
}

int Service::ask_library_for_source(int source) {
  Json::Value request(Json::objectValue);
  request["event_type"] = kChangeDisplaySourceRequest;
  request["source"] = source;
  const std::string text = compact_json(request);
  trace("ask    display-source %s", text.c_str());
  std::string answer;
  const int rc = endpoints_->ask_library(text, &answer);
  if (rc != 0) {
    complain("the library did not answer the display-source request (transport result %d)", rc);
    return -1;
  }
  trace("answer display-source %s", answer.c_str());
  // The library's answer has no "event_type": read "ret" alone.
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(answer.data(), answer.data() + answer.size(), &value, &errors) ||
      !value.isObject() || !value["ret"].isInt()) {
    complain("unreadable answer to the display-source request: %s", answer.c_str());
    return -1;
  }
  const int ret = value["ret"].asInt();
  if (ret == 0) {
    std::lock_guard<std::mutex> lock(mu_);
    state_.current_source = source;
  }
  return ret;
}

std::string Service::handle_request(const char* text, std::size_t len) try {
  Request request;
  Json::Value reply(Json::objectValue);
  if (!request.parse(text, len)) {
    complain("malformed request (%s), answered ret -1: %.200s", request.complaint().c_str(),
             text == nullptr ? "" : std::string(text, len).c_str());
    return reply_text(reply, -1);
  }
  const int command = request.command();
  const char* name = command_name(command);
  trace("request %s %s", name, compact_json(request.value()).c_str());
  if (!known_command(command)) {
    complain("unknown command %d, answered ret -1", command);
    return reply_text(reply, -1);
  }
  int ret = 0;
  Outbox out;
  Call call{request, reply, state_, Clock::now(), out};
  {
    std::lock_guard<std::mutex> lock(mu_);
    call.now = Clock::now();
    unsigned id = 0;
    if (addresses_player(command)) {
      if (!request.get_uint("player_id", &id)) {
        ret = kRefused;
      } else {
        auto it = state_.players.find(id);
        call.player = it == state_.players.end() ? nullptr : it->second.get();
        if (call.player == nullptr) {
          trace("no player %u", id);
          return reply_text(reply, -1);
        }
      }
    }
    if (ret == 0) ret = dispatch(call);
    send(&out);
  }
  if (ret == kRefused) {
    complain("bad %s request (%s), answered ret -1", name, request.complaint().c_str());
    ret = -1;
  }
  if (call.display_source >= 0) ret = ask_library_for_source(call.display_source);
  std::string answer = reply_text(reply, ret);
  trace("reply  %s %s", name, answer.c_str());
  return answer;
} catch (const std::exception& e) {
  complain("request failed (%s), answered ret -1", e.what());
  return "{\"ret\":-1}";
}

void Service::handle_notice(const char* text, std::size_t len) try {
  Request notice;
  if (!notice.parse(text, len)) {
    complain("malformed notice (%s), ignored", notice.complaint().c_str());
    return;
  }
  trace("notice %s %s", command_name(notice.command()), compact_json(notice.value()).c_str());
  bool enable = false;
  if (notice.command() != kPlatformSubtitleEnable || !notice.get_bool("subtitleEnable", &enable)) {
    complain("unknown or bad notice (%s), ignored",
             notice.complaint().empty() ? "unknown number" : notice.complaint().c_str());
    return;
  }
  std::lock_guard<std::mutex> lock(mu_);
  if (state_.platform_subtitles == enable) return;
  state_.platform_subtitles = enable;
  // Shown or hidden on every player that has a subtitle track selected.
  Outbox out;
  for (const auto& entry : state_.players) {
    if (entry.second->active_index(kSubtitleTrack) >= 0) {
      out.push_back(player_event(entry.first, kTrackChangeEvent, 0, kSubtitleTrack, 0.0));
    }
  }
  send(&out);
} catch (const std::exception& e) {
  complain("notice failed (%s), ignored", e.what());
}

}  // namespace pavo::service
