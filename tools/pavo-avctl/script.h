// Session scripts of pavo-avctl: one step per line, read and checked as a
// whole before anything is sent, so that a typo on line 30 does not surface
// after half a minute of playback.
#ifndef PAVO_TOOLS_AVCTL_SCRIPT_H
#define PAVO_TOOLS_AVCTL_SCRIPT_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "pavo_avctrl_types.h"

namespace pavo::avctl {

// One step: a verb and its words. Lines of a script are split at blanks. A
// "#" that begins a word starts a comment that runs to the end of the line,
// unless a digit follows it ("#1", a component's position, is a word); a "#"
// inside a word is part of it.
struct Step {
  int line = 0;  // 1-based line of the script; 0 for steps made from options
  std::string verb;
  std::vector<std::string> args;

  // The step as written ("verb arg arg").
  std::string text() const;
  // The words from `first` on, joined with single blanks ("" when none).
  std::string tail(std::size_t first) const;
};

// One row of the step table: the verb, how many words it takes and the
// line of the --help text that describes it.
struct VerbRule {
  const char* verb;
  std::size_t min_args;
  std::size_t max_args;  // kAnyCount: no limit
  const char* usage;
};
constexpr std::size_t kAnyCount = static_cast<std::size_t>(-1);

// Every verb a script may use, in the order --help lists them.
const std::vector<VerbRule>& verb_table();

// Splits `text` into steps and checks each (known verb, number of words,
// numbers and names it carries). Returns true and fills `steps`; false with
// `error` ("line N: ...") at the first bad line, `steps` then untouched.
bool parse_script(const std::string& text, std::vector<Step>& steps, std::string& error);

// Checks one step as parse_script does; false with `error` saying why.
bool check_step(const Step& step, std::string& error);

// ---- Words of the script language, shared with the step runner. ---------

// A time or position in milliseconds: a finite number >= 0.
std::optional<double> parse_ms(const std::string& word);
// A speed factor: any finite number ("2", "-4", "0.5").
std::optional<double> parse_speed(const std::string& word);
// "stopped", "playing", "paused", "connecting", "buffering", "finished",
// "error"; several joined with "|" ("finished|error") give a bit set
// (1 << state).
std::optional<unsigned> parse_states(const std::string& word);
// "video", "audio", "subtitle".
std::optional<PavoAVComponentType> parse_component_type(const std::string& word);
// An object's error code by number (-1, 0, 1, 4, 5) or by name ("none",
// "format", "connection", "corrupt", "not-available").
std::optional<int> parse_error_code(const std::string& word);
// What the plug-in's callbacks receive, as wait-event names them.
enum class EventKind {
  kPlayState,   // "state"
  kSpeed,       // "speed"
  kPosition,    // "position"
  kComponent,   // "component"
  kDrmError,    // "drm-error"
  kMediaError,  // "media-error"
  kDrmResult,   // DRM agent: the result of a sent message ("drm-result")
  kDrmOther,    // DRM agent: a system message or status change ("drm-notice")
};
std::optional<EventKind> parse_event_kind(const std::string& word);
const char* event_kind_name(EventKind kind);

// "on" / "off".
std::optional<bool> parse_switch(const std::string& word);

// Names for printing; "?" for values outside the interface's tables.
const char* state_name(int state);
const char* component_type_name(int type);
const char* error_code_name(int code);

}  // namespace pavo::avctl

#endif  // PAVO_TOOLS_AVCTL_SCRIPT_H
