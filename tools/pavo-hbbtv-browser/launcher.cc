#include "pavo-hbbtv-browser/launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <regex.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "pavo-hbbtv-browser/base64.h"
#include "pavo-hbbtv-browser/browser_process.h"
#include "pavo-hbbtv-browser/devtools.h"
#include "pavo-hbbtv-browser/page_objects.h"

namespace pavo::hbbtv {
namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

std::atomic<bool> g_stop{false};
int g_stop_pipe[2] = {-1, -1};

constexpr Millis kTickInterval{200};  // position pushes: five a second
constexpr Millis kStartTimeout{20000};

std::string random_name(const char* prefix) {
  unsigned char bytes[8] = {};
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    (void)!::read(fd, bytes, sizeof bytes);
    ::close(fd);
  }
  std::string name = prefix;
  char hex[3];
  for (unsigned char b : bytes) {
    std::snprintf(hex, sizeof hex, "%02x", b);
    name += hex;
  }
  return name;
}

// The text of a console call's arguments.
std::string console_text(const Json::Value& args) {
  std::string text;
  for (const Json::Value& a : args) {
    if (!text.empty()) text += ' ';
    const Json::Value& v = a["value"];
    if (v.isString()) text += v.asString();
    else if (v.isBool() || v.isNumeric()) text += v.asString();
    else if (a["description"].isString()) text += a["description"].asString();
    else if (a["subtype"].asString() == "null") text += "null";
    else if (a["type"].isString()) text += a["type"].asString();
    if (text.size() > 1000) break;
  }
  if (text.size() > 1000) text = text.substr(0, 997) + "...";
  return text;
}

bool header_is(const Json::Value& headers, const char* name, std::string& value) {
  for (const Json::Value& h : headers) {
    if (h["name"].isString() && strcasecmp(h["name"].asCString(), name) == 0 && h["value"].isString()) {
      value = h["value"].asString();
      return true;
    }
  }
  return false;
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// The key names and codes the page sees for an HbbTV key code.
const char* dom_key(int code) {
  switch (code) {
    case 13: return "Enter";
    case 37: return "ArrowLeft";
    case 38: return "ArrowUp";
    case 39: return "ArrowRight";
    case 40: return "ArrowDown";
    case 403: return "ColorF0Red";
    case 404: return "ColorF1Green";
    case 405: return "ColorF2Yellow";
    case 406: return "ColorF3Blue";
    case 415: return "MediaPlay";
    case 19: return "MediaPause";
    case 413: return "MediaStop";
    case 417: return "MediaFastForward";
    case 412: return "MediaRewind";
    case 461: return "BrowserBack";
    default: return "";
  }
}

class Run {
 public:
  Run(const Options& options, plugin::Timeline& timeline) : options_(options), timeline_(timeline) {}
  int execute();

 private:
  bool setup(std::string& why);
  void on_event(const std::string& method, const Json::Value& params, const std::string& session);
  void on_request_paused(const Json::Value& params);
  void navigated(const std::string& url);
  void send_key(int code);
  void deliver(int context, const std::string& messages);
  bool screenshot();
  void end(int status, const std::string& why) {
    if (ended_) return;
    ended_ = true;
    status_ = status;
    end_reason_ = why;
  }

  const Options& options_;
  plugin::Timeline& timeline_;
  BrowserProcess browser_;
  std::unique_ptr<DevTools> devtools_;
  std::unique_ptr<PageObjects> objects_;
  std::string session_;
  std::string target_;
  std::string binding_ = random_name("__pavo_call_");
  std::string receiver_ = random_name("__pavo_receive_");
  bool loaded_ = false;
  std::size_t keys_sent_ = 0;
  Clock::time_point next_key_{};
  bool ended_ = false;
  int status_ = kExitOk;
  std::string end_reason_;
  regex_t until_{};
  bool has_until_ = false;
};

bool Run::setup(std::string& why) {
  Json::Value result;
  Json::Value none(Json::objectValue);
  if (!devtools_->call("Target.getTargets", none, "", result, why, kStartTimeout)) return false;
  for (const Json::Value& t : result["targetInfos"]) {
    if (t["type"].asString() == "page") {
      target_ = t["targetId"].asString();
      break;
    }
  }
  if (target_.empty()) {
    why = "the browser has no page";
    return false;
  }
  Json::Value attach;
  attach["targetId"] = target_;
  attach["flatten"] = true;
  if (!devtools_->call("Target.attachToTarget", attach, "", result, why)) return false;
  session_ = result["sessionId"].asString();

  // Before the first page: the binding and the objects' script, the user
  // agent, the cookies, and the content-type rewrite of HbbTV documents.
  Json::Value binding;
  binding["name"] = binding_;
  Json::Value script;
  script["source"] = page_script(binding_, receiver_);
  Json::Value agent;
  agent["userAgent"] = options_.user_agent.empty() ? default_user_agent() : options_.user_agent;
  Json::Value fetch;
  Json::Value pattern;
  pattern["urlPattern"] = "*";
  pattern["resourceType"] = "Document";
  pattern["requestStage"] = "Response";
  fetch["patterns"].append(pattern);
  const std::pair<const char*, const Json::Value*> steps[] = {
      {"Runtime.enable", &none},           {"Page.enable", &none},
      {"Runtime.addBinding", &binding},    {"Page.addScriptToEvaluateOnNewDocument", &script},
      {"Network.enable", &none},           {"Network.setUserAgentOverride", &agent},
      {"Fetch.enable", &fetch},
  };
  for (const auto& [method, params] : steps) {
    if (!devtools_->call(method, *params, session_, result, why)) {
      why = std::string(method) + ": " + why;
      return false;
    }
  }
  for (const auto& [name, value] : options_.cookies) {
    Json::Value cookie;
    cookie["name"] = name;
    cookie["value"] = value;
    cookie["url"] = options_.url;
    if (!devtools_->call("Network.setCookie", cookie, session_, result, why) || !result["success"].asBool()) {
      why = "cannot set cookie " + name + (why.empty() ? "" : ": " + why);
      return false;
    }
    timeline_.line("info", "cookie " + name + " set for " + options_.url);
  }
  return true;
}

void Run::deliver(int context, const std::string& messages) {
  Json::Value params;
  params["expression"] = receiver_ + "(" + Json::valueToQuotedString(messages.c_str()) + ")";
  params["contextId"] = context;
  params["silent"] = true;
  devtools_->send("Runtime.evaluate", params, session_);
}

void Run::navigated(const std::string& url) {
  timeline_.line("nav", url);
  if (has_until_ && regexec(&until_, url.c_str(), 0, nullptr, 0) == 0) end(kExitOk, "the page reached " + url);
}

void Run::on_request_paused(const Json::Value& params) {
  Json::Value answer;
  answer["requestId"] = params["requestId"];
  std::string type;
  header_is(params["responseHeaders"], "content-type", type);
  const std::string base = lower(type.substr(0, type.find(';')));
  if (base == "application/vnd.hbbtv.xhtml+xml" || base == "application/ce-html+xml") {
    // A terminal renders these as XHTML; a desktop browser would download them.
    Json::Value headers(Json::arrayValue);
    for (const Json::Value& h : params["responseHeaders"]) {
      if (strcasecmp(h["name"].asCString(), "content-type") == 0) continue;
      headers.append(h);
    }
    Json::Value content;
    content["name"] = "Content-Type";
    content["value"] = "application/xhtml+xml" + (type.find(';') == std::string::npos ? "" : type.substr(type.find(';')));
    headers.append(content);
    answer["responseHeaders"] = headers;
    answer["responseCode"] = params["responseStatusCode"].isInt() ? params["responseStatusCode"].asInt() : 200;
    // The body is fulfilled anew under the new type (continuing the response
    // with changed headers still counts as a download).
    Json::Value body_request;
    body_request["requestId"] = params["requestId"];
    devtools_->send("Fetch.getResponseBody", body_request, session_,
                    [this, answer](const Json::Value& result, const std::string& error) mutable {
                      if (!error.empty()) {
                        Json::Value go_on;
                        go_on["requestId"] = answer["requestId"];
                        devtools_->send("Fetch.continueRequest", go_on, session_);
                        return;
                      }
                      const std::string body = result["body"].asString();
                      answer["body"] = result["base64Encoded"].asBool() ? body : encode_base64(body);
                      devtools_->send("Fetch.fulfillRequest", answer, session_);
                    });
    return;
  }
  if (params["frameId"].asString() != target_ &&
      (base.rfind("video/", 0) == 0 || base.rfind("audio/", 0) == 0 || base == "application/dash+xml")) {
    // Media an <object> would load as a nested document: the library plays
    // it, the browser does not.
    timeline_.line("info", "the browser's own load of " + params["request"]["url"].asString() + " refused");
    answer["errorReason"] = "BlockedByClient";
    devtools_->send("Fetch.failRequest", answer, session_);
    return;
  }
  devtools_->send("Fetch.continueRequest", answer, session_);
}

void Run::on_event(const std::string& method, const Json::Value& params, const std::string& session) {
  if (method == "Runtime.bindingCalled") {
    if (params["name"].asString() == binding_ && params["payload"].isString() &&
        params["executionContextId"].isInt()) {
      objects_->handle_call(params["executionContextId"].asInt(), params["payload"].asString());
    }
  } else if (method == "Runtime.executionContextDestroyed") {
    if (params["executionContextId"].isInt()) objects_->context_gone(params["executionContextId"].asInt());
  } else if (method == "Runtime.executionContextsCleared") {
    objects_->close_all();
  } else if (method == "Runtime.consoleAPICalled") {
    timeline_.line("console", params["type"].asString() + ": " + console_text(params["args"]));
  } else if (method == "Runtime.exceptionThrown") {
    const Json::Value& d = params["exceptionDetails"];
    std::string text = d["exception"]["description"].isString() ? d["exception"]["description"].asString()
                                                                 : d["text"].asString();
    text = text.substr(0, text.find('\n'));
    timeline_.line("error", "uncaught: " + text);
  } else if (method == "Page.frameNavigated") {
    const Json::Value& frame = params["frame"];
    if (!frame.isMember("parentId")) navigated(frame["url"].asString());
  } else if (method == "Page.navigatedWithinDocument") {
    if (params["frameId"].asString() == target_) navigated(params["url"].asString());
  } else if (method == "Page.loadEventFired") {
    if (!loaded_) {
      loaded_ = true;
      next_key_ = Clock::now() + Millis(options_.key_interval_ms);
      timeline_.line("ready", "page loaded");
    }
  } else if (method == "Page.javascriptDialogOpening") {
    timeline_.line("info", "dialog: " + params["message"].asString());
    Json::Value accept;
    accept["accept"] = true;
    devtools_->send("Page.handleJavaScriptDialog", accept, session_);
  } else if (method == "Fetch.requestPaused") {
    on_request_paused(params);
  } else if (method == "Inspector.targetCrashed") {
    end(kExitPageFailed, "the page crashed");
  } else if (method == "Target.detachedFromTarget" || method == "Target.targetDestroyed") {
    if (params["sessionId"].asString() == session_ || params["targetId"].asString() == target_) {
      objects_->close_all();
      end(kExitOk, "the page closed itself");
    }
  }
  (void)session;
}

void Run::send_key(int code) {
  std::string name;
  for (const char* n : {"ENTER", "LEFT", "UP", "RIGHT", "DOWN", "RED", "GREEN", "YELLOW", "BLUE", "PLAY", "PAUSE",
                        "STOP", "FAST_FWD", "REWIND", "BACK"}) {
    if (key_code(n) == code) name = n;
  }
  if (name.empty()) name = std::string(1, static_cast<char>(code));
  timeline_.line("key", name + " (" + std::to_string(code) + ")");
  Json::Value key;
  key["windowsVirtualKeyCode"] = code;
  key["nativeVirtualKeyCode"] = code;
  const std::string dom = dom_key(code);
  key["key"] = dom.empty() ? std::string(1, static_cast<char>(code)) : dom;
  key["type"] = "rawKeyDown";
  devtools_->send("Input.dispatchKeyEvent", key, session_);
  if (code >= 48 && code <= 57) {
    Json::Value chr = key;
    chr["type"] = "char";
    chr["text"] = std::string(1, static_cast<char>(code));
    devtools_->send("Input.dispatchKeyEvent", chr, session_);
  }
  key["type"] = "keyUp";
  devtools_->send("Input.dispatchKeyEvent", key, session_);
}

bool Run::screenshot() {
  Json::Value params;
  params["format"] = "png";
  Json::Value result;
  std::string why;
  std::string png;
  if (!devtools_->call("Page.captureScreenshot", params, session_, result, why) ||
      !decode_base64(result["data"].asString(), png) || png.empty()) {
    timeline_.line("FAIL", "screenshot: " + (why.empty() ? "no image" : why));
    return false;
  }
  std::ofstream file(options_.screenshot, std::ios::binary | std::ios::trunc);
  file.write(png.data(), static_cast<std::streamsize>(png.size()));
  if (!file.flush()) {
    timeline_.line("FAIL", "screenshot: cannot write " + options_.screenshot + ": " + std::strerror(errno));
    return false;
  }
  timeline_.line("shot", options_.screenshot + " (" + std::to_string(png.size()) + " bytes)");
  return true;
}

int Run::execute() {
  if (!options_.until_url.empty()) {
    has_until_ = regcomp(&until_, options_.until_url.c_str(), REG_EXTENDED | REG_NOSUB) == 0;
  }
  int write_fd = -1;
  int read_fd = -1;
  std::string why;
  if (!browser_.start(options_.browser, write_fd, read_fd, why)) {
    timeline_.line("FAIL", "cannot start the browser: " + why);
    return kExitNoBrowser;
  }
  devtools_ = std::make_unique<DevTools>(write_fd, read_fd);
  objects_ = std::make_unique<PageObjects>(timeline_, [this](int c, const std::string& m) { deliver(c, m); },
                                           options_.frames);
  devtools_->set_event_handler([this](const std::string& m, const Json::Value& p, const std::string& s) {
    try {
      on_event(m, p, s);
    } catch (const std::exception& e) {
      timeline_.line("warn", "browser message " + m + " not understood: " + e.what());
    }
  });

  int status = kExitOk;
  if (!setup(why)) {
    timeline_.line("FAIL", "the browser did not start its page: " + why);
    status = kExitNoBrowser;
  } else {
    timeline_.line("ready", "browser process " + std::to_string(browser_.pid()) + ", opening " + options_.url);
    Json::Value nav;
    nav["url"] = options_.url;
    Json::Value result;
    if (!devtools_->call("Page.navigate", nav, session_, result, why)) {
      end(kExitPageFailed, "cannot open " + options_.url + ": " + why);
    } else if (result["errorText"].isString() && !result["errorText"].asString().empty()) {
      end(kExitPageFailed, "cannot open " + options_.url + ": " + result["errorText"].asString());
    }
    const Clock::time_point start = Clock::now();
    const bool limited = options_.for_seconds > 0;
    const Clock::time_point until = start + Millis(static_cast<long long>(options_.for_seconds * 1000));
    Clock::time_point next_tick = start + kTickInterval;
    while (!ended_) {
      pollfd fds[3] = {{devtools_->read_fd(), POLLIN, 0}, {objects_->wake_fd(), POLLIN, 0}, {g_stop_pipe[0], POLLIN, 0}};
      const int n = ::poll(fds, g_stop_pipe[0] >= 0 ? 3 : 2, 20);
      if (g_stop.load()) {
        end(kExitInterrupted, "interrupted");
        break;
      }
      if (n > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !devtools_->read_available()) {
        end(kExitPageFailed, "the browser ended");
        break;
      }
      if (n > 0 && (fds[1].revents & POLLIN) != 0) objects_->deliver();
      const Clock::time_point now = Clock::now();
      if (now >= next_tick) {
        objects_->tick();
        next_tick = now + kTickInterval;
      }
      if (loaded_ && keys_sent_ < options_.keys.size() && now >= next_key_) {
        send_key(options_.keys[keys_sent_++]);
        next_key_ = now + Millis(options_.key_interval_ms);
      }
      if (limited && now >= until) end(kExitOk, "the time is up");
    }
    status = status_;
    if (status == kExitPageFailed) timeline_.line("FAIL", end_reason_);
    else timeline_.line("info", end_reason_);
    if (!options_.screenshot.empty() && devtools_->open() && !screenshot() && status == kExitOk) {
      status = kExitPageFailed;
    }
  }
  // The objects first (no player is left in the service), then the browser.
  objects_->close_all();
  if (devtools_->open()) {
    Json::Value result;
    std::string ignored;
    devtools_->call("Browser.close", Json::Value(Json::objectValue), "", result, ignored, Millis(2000));
  }
  devtools_.reset();
  browser_.stop();
  objects_.reset();
  if (has_until_) regfree(&until_);
  return status;
}

}  // namespace

void request_stop() {
  g_stop.store(true);
  if (g_stop_pipe[1] >= 0) {
    const char byte = 1;
    (void)!::write(g_stop_pipe[1], &byte, 1);
  }
}

int run_browser(const Options& options, plugin::Timeline& timeline) {
  if (g_stop_pipe[0] < 0 && ::pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_stop_pipe[0] = g_stop_pipe[1] = -1;
  Run run(options, timeline);
  return run.execute();
}

}  // namespace pavo::hbbtv
