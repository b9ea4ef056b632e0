#include "pavo-avctl/script.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace pavo::avctl {
namespace {

const char* const kStateNames[] = {"stopped", "playing", "paused", "connecting",
                                   "buffering", "finished", "error"};
constexpr int kStateCount = 7;

struct EventName {
  EventKind kind;
  const char* name;
};
const EventName kEventNames[] = {
    {EventKind::kPlayState, "state"},        {EventKind::kSpeed, "speed"},
    {EventKind::kPosition, "position"},      {EventKind::kComponent, "component"},
    {EventKind::kDrmError, "drm-error"},     {EventKind::kMediaError, "media-error"},
    {EventKind::kDrmResult, "drm-result"},   {EventKind::kDrmOther, "drm-notice"},
};

struct ErrorName {
  int code;
  const char* name;
};
const ErrorName kErrorNames[] = {
    {PAVO_AVCTRL_ERROR_NONE, "none"},
    {PAVO_AVCTRL_ERROR_FORMAT, "format"},
    {PAVO_AVCTRL_ERROR_CONNECTION, "connection"},
    {PAVO_AVCTRL_ERROR_CORRUPT, "corrupt"},
    {PAVO_AVCTRL_ERROR_NOT_AVAILABLE, "not-available"},
};

std::optional<double> parse_number(const std::string& word) {
  if (word.empty()) return std::nullopt;
  char* end = nullptr;
  const double value = std::strtod(word.c_str(), &end);
  if (end != word.c_str() + word.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

// The optional last word of a wait: a time-out in milliseconds.
bool check_optional_ms(const Step& step, std::size_t index, std::string& error) {
  if (step.args.size() > index && !parse_ms(step.args[index])) {
    error = "'" + step.args[index] + "' is not a time in milliseconds";
    return false;
  }
  return true;
}

bool check_component_choice(const Step& step, std::string& error) {
  if (!parse_component_type(step.args[0])) {
    error = "'" + step.args[0] + "' is no component type (video, audio, subtitle)";
    return false;
  }
  const std::string& which = step.args[1];
  if (which[0] == '#' && !parse_ms(which.substr(1))) {
    error = "'" + which + "' is no component index (#0, #1, ...)";
    return false;
  }
  return true;
}

// Where the comment of `line` begins (npos: it has none). A '#' begins a
// comment only where it begins a word (at the start of the line or after a
// blank) and no digit follows it: "#1" names a component by its position
// ("select audio #1"), and a '#' inside a word ("http://host/page#part")
// belongs to the word.
std::size_t comment_start(const std::string& line) {
  for (std::size_t i = line.find('#'); i != std::string::npos; i = line.find('#', i + 1)) {
    const bool begins_word = i == 0 || std::isspace(static_cast<unsigned char>(line[i - 1])) != 0;
    const bool position = i + 1 < line.size() && std::isdigit(static_cast<unsigned char>(line[i + 1])) != 0;
    if (begins_word && !position) return i;
  }
  return std::string::npos;
}

bool check_drm(const Step& step, std::string& error) {
  const std::string& what = step.args[0];
  if (what == "query" && step.args.size() <= 3) return true;
  if (what == "message" && step.args.size() >= 4) return true;
  error = "use 'drm query SYSTEM [PRIVATE_DATA]' or 'drm message SYSTEM TYPE TEXT...'";
  return false;
}

}  // namespace

std::string Step::text() const {
  std::string out = verb;
  if (!args.empty()) out += " " + tail(0);
  return out;
}

std::string Step::tail(std::size_t first) const {
  std::string out;
  for (std::size_t i = first; i < args.size(); ++i) {
    if (i > first) out += ' ';
    out += args[i];
  }
  return out;
}

const std::vector<VerbRule>& verb_table() {
  static const std::vector<VerbRule> table = {
      {"load", 1, 1, "load URL                      load a stream (Pavo_AVCtrl_Load)"},
      {"play", 0, 1, "play [SPEED]                  play, or change speed (default 1; 2 = 2x, -2 rewinds)"},
      {"pause", 0, 0, "pause                         pause"},
      {"stop", 0, 0, "stop                          stop"},
      {"seek", 1, 1, "seek MS                       seek to MS milliseconds"},
      {"wait-state", 1, 2,
       "wait-state STATE[|STATE] [T]  wait until the play state is one of these; fails at once\n"
       "                              on the error state unless 'error' is one of them"},
      {"wait-position", 1, 2, "wait-position MS [T]          wait until the play position has passed MS"},
      {"wait-event", 1, 2,
       "wait-event EVENT [T]          wait for an event posted since the last action step began:\n"
       "                              state, speed, position, component, drm-error, media-error,\n"
       "                              drm-result, drm-notice"},
      {"sleep", 1, 1, "sleep MS                      let MS milliseconds pass"},
      {"components", 1, 2,
       "components TYPE [L1,L2,..]    list the components of TYPE (video, audio, subtitle) with\n"
       "                              their three-letter languages; with a list, fail unless the\n"
       "                              languages are exactly these"},
      {"select", 2, 2, "select TYPE LANG|#N           select the component with this language (or index)"},
      {"unselect", 2, 2, "unselect TYPE LANG|#N         unselect it"},
      {"subtitles", 1, 1, "subtitles on|off              platform subtitle notice, then the player's subtitles"},
      {"drm", 2, kAnyCount,
       "drm query SYSTEM [DATA]       DRM agent: the DRM system's status; with DATA (the\n"
       "                              content's DRM private data) also canPlayContent\n"
       "drm message SYSTEM TYPE TEXT  DRM agent: send a message, wait for its result event"},
      {"expect-error", 1, 2,
       "expect-error CODE [T]         wait for the error state, then check the object's error\n"
       "                              code: none, format, connection, corrupt, not-available"},
      {"expect-speed", 1, 1, "expect-speed S                check the object's speed"},
      {"info", 0, 0, "info                          print state, speed, position, duration and error"},
  };
  return table;
}

bool check_step(const Step& step, std::string& error) {
  const VerbRule* rule = nullptr;
  for (const VerbRule& row : verb_table()) {
    if (step.verb == row.verb) rule = &row;
  }
  if (rule == nullptr) {
    error = "unknown step '" + step.verb + "' (pavo-avctl --help lists the steps)";
    return false;
  }
  const std::size_t n = step.args.size();
  if (n < rule->min_args || (rule->max_args != kAnyCount && n > rule->max_args)) {
    const std::string usage(rule->usage);
    error = "'" + step.verb + "' takes: " + usage.substr(0, usage.find("  "));
    return false;
  }
  const std::string& verb = step.verb;
  if (verb == "play" && n == 1 && !parse_speed(step.args[0])) {
    error = "'" + step.args[0] + "' is not a speed";
    return false;
  }
  if ((verb == "seek" || verb == "sleep" || verb == "wait-position") && !parse_ms(step.args[0])) {
    error = "'" + step.args[0] + "' is not a time in milliseconds";
    return false;
  }
  if (verb == "wait-state" && !parse_states(step.args[0])) {
    error = "'" + step.args[0] + "' is no play state (stopped, playing, paused, connecting, "
            "buffering, finished, error)";
    return false;
  }
  if (verb == "wait-event" && !parse_event_kind(step.args[0])) {
    error = "'" + step.args[0] + "' is no event name";
    return false;
  }
  if (verb == "components" && !parse_component_type(step.args[0])) {
    error = "'" + step.args[0] + "' is no component type (video, audio, subtitle)";
    return false;
  }
  if ((verb == "select" || verb == "unselect") && !check_component_choice(step, error)) return false;
  if (verb == "subtitles" && !parse_switch(step.args[0])) {
    error = "use 'subtitles on' or 'subtitles off'";
    return false;
  }
  if (verb == "drm" && !check_drm(step, error)) return false;
  if (verb == "expect-error" && !parse_error_code(step.args[0])) {
    error = "'" + step.args[0] + "' is no error code";
    return false;
  }
  if (verb == "expect-speed" && !parse_speed(step.args[0])) {
    error = "'" + step.args[0] + "' is not a speed";
    return false;
  }
  const bool waits = verb == "wait-state" || verb == "wait-position" || verb == "wait-event" ||
                     verb == "expect-error";
  return !waits || check_optional_ms(step, 1, error);
}

bool parse_script(const std::string& text, std::vector<Step>& steps, std::string& error) {
  std::vector<Step> out;
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    const std::size_t comment = comment_start(line);
    if (comment != std::string::npos) line.erase(comment);
    std::istringstream words(line);
    Step step;
    step.line = number;
    if (!(words >> step.verb)) continue;
    for (std::string word; words >> word;) step.args.push_back(word);
    std::string why;
    if (!check_step(step, why)) {
      error = "line " + std::to_string(number) + ": " + why;
      return false;
    }
    out.push_back(std::move(step));
  }
  steps = std::move(out);
  return true;
}

std::optional<double> parse_ms(const std::string& word) {
  const std::optional<double> value = parse_number(word);
  if (!value || *value < 0) return std::nullopt;
  return value;
}

std::optional<double> parse_speed(const std::string& word) { return parse_number(word); }

std::optional<unsigned> parse_states(const std::string& word) {
  unsigned set = 0;
  std::size_t start = 0;
  for (;;) {
    const std::size_t bar = word.find('|', start);
    const std::string name = word.substr(start, bar == std::string::npos ? std::string::npos : bar - start);
    int found = -1;
    for (int s = 0; s < kStateCount; ++s) {
      if (name == kStateNames[s]) found = s;
    }
    if (found < 0) return std::nullopt;
    set |= 1u << found;
    if (bar == std::string::npos) return set;
    start = bar + 1;
  }
}

std::optional<PavoAVComponentType> parse_component_type(const std::string& word) {
  if (word == "video") return PAVO_AV_COMPONENT_TYPE_VIDEO;
  if (word == "audio") return PAVO_AV_COMPONENT_TYPE_AUDIO;
  if (word == "subtitle" || word == "subtitles") return PAVO_AV_COMPONENT_TYPE_SUBTITLE;
  return std::nullopt;
}

std::optional<int> parse_error_code(const std::string& word) {
  for (const ErrorName& e : kErrorNames) {
    if (word == e.name || word == std::to_string(e.code)) return e.code;
  }
  return std::nullopt;
}

std::optional<EventKind> parse_event_kind(const std::string& word) {
  for (const EventName& e : kEventNames) {
    if (word == e.name) return e.kind;
  }
  return std::nullopt;
}

std::optional<bool> parse_switch(const std::string& word) {
  if (word == "on") return true;
  if (word == "off") return false;
  return std::nullopt;
}

const char* state_name(int state) {
  return state >= 0 && state < kStateCount ? kStateNames[state] : "?";
}

const char* component_type_name(int type) {
  switch (type) {
    case PAVO_AV_COMPONENT_TYPE_OTHER: return "other";
    case PAVO_AV_COMPONENT_TYPE_VIDEO: return "video";
    case PAVO_AV_COMPONENT_TYPE_AUDIO: return "audio";
    case PAVO_AV_COMPONENT_TYPE_SUBTITLE: return "subtitle";
    default: return "?";
  }
}

const char* error_code_name(int code) {
  for (const ErrorName& e : kErrorNames) {
    if (code == e.code) return e.name;
  }
  return "?";
}

const char* event_kind_name(EventKind kind) {
  for (const EventName& e : kEventNames) {
    if (kind == e.kind) return e.name;
  }
  return "?";
}

}  // namespace pavo::avctl
