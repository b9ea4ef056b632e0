// The readable timeline that pavo-avctl and pavo-hbbtv-browser print: one line per step, event and
// finding, each with the seconds since the start. On a terminal a live
// progress line (the play position) stays at the bottom and is redrawn in
// place; elsewhere progress comes as ordinary lines, so that logs and pipes
// get plain text only.
//
// Thread safety: every member may be called from any thread (the plug-in's
// callbacks print from the library's event thread); lines never interleave.
#ifndef PAVO_TOOLS_PLUGIN_SIDE_TIMELINE_H
#define PAVO_TOOLS_PLUGIN_SIDE_TIMELINE_H

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace pavo::plugin {

class Timeline {
 public:
  // `live`: standard output is a terminal (a redrawn progress line).
  Timeline(std::FILE* out, bool live);
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;

  // Prints "  12.345  tag    text" (the tag padded to six columns).
  void line(const char* tag, const std::string& text);
  // Live: shows `text` as the progress line. Plain: prints it as a "pos"
  // line.
  void progress(const std::string& text);
  // Live: removes the progress line (before the program ends).
  void clear_progress();

  bool live() const { return live_; }
  // Seconds since the timeline was made.
  double seconds() const;

 private:
  void erase_progress_locked();
  void draw_progress_locked();

  std::FILE* const out_;
  const bool live_;
  const std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::string progress_;  // guarded by mutex_; shown at the bottom when live
};

// "mm:ss.t" for a position in milliseconds ("-" for negative values).
std::string clock_text(double ms);

}  // namespace pavo::plugin

#endif  // PAVO_TOOLS_PLUGIN_SIDE_TIMELINE_H
