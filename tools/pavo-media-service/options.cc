#include "pavo-media-service/options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace pavo::service {

const char* usage() {
  return "Usage: pavo-media-service [--time-scale X] [--engine model|gstreamer]\n"
         "                          [--sinks fake|auto] [--verbose] [FAULT...] [--help]\n"
         "The media-player service: serves the library's requests on queue 0x95000100\n"
         "(replies on 0x95000101), reads notices on 0x95000080, sends events on\n"
         "0x95000070 and its own requests on 0x95000090. Prints\n"
         "\"pavo-media-service: ready\" once it serves; SIGINT or SIGTERM stop it.\n"
         "  --time-scale X  run the media clock and every delay X times faster (X > 0)\n"
         "  --engine E      model (default): the virtual media below, deterministic;\n"
         "                  gstreamer: plays each URL (or file name) through GStreamer,\n"
         "                  in real time (--time-scale must stay 1)\n"
         "  --sinks S       gstreamer: fake (renders nothing; the default without a\n"
         "                  display) or auto (the desktop's video and audio output)\n"
         "  --verbose       print every request, reply and event, one line each\n"
         "  --help          this text\n"
         "Faults, for reliability tests (CMD: a command number, or \"any\"):\n"
         "  --reply-delay MS       send every reply MS milliseconds late\n"
         "  --late-command CMD     ... only the replies to CMD (default: any)\n"
         "  --no-reply CMD         never answer CMD (the request thread stays with it)\n"
         "  --exit-on-request CMD  act on CMD, then exit with status 3 without answering\n"
         "  --drop-events N        drop every N-th event (1: every event)\n"
         "Media, chosen by the last path segment of the URL: vod.mp4 (60 s), short.mp4\n"
         "(3 s), live.ts, drm.mp4 (30 s, protected), error-network.mp4,\n"
         "error-format.mp4, error-decoder.mp4, error-encrypted.mp4; anything else\n"
         "fails like error-network.mp4.\n";
}

namespace {

// A whole decimal number in [min, max].
bool read_count(const std::string& text, long min, long max, long* out) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < min || value > max) return false;
  *out = value;
  return true;
}

// A command number or "any".
bool read_command(const std::string& text, int* out) {
  long value = 0;
  if (text == "any") {
    *out = FaultOptions::kAnyCommand;
  } else if (read_count(text, 0, 1000000, &value)) {
    *out = static_cast<int>(value);
  } else {
    return false;
  }
  return true;
}

// The fault options, each with one value. Returns false when `arg` is none
// of them; *error is set when it is one with a bad or missing value.
bool parse_fault(const std::string& arg, const char* value, FaultOptions* faults, std::string* error) {
  long n = 0;
  bool ok = value != nullptr;
  if (arg == "--reply-delay") {
    ok = ok && read_count(value, 0, 3600000, &n);
    faults->reply_delay_ms = static_cast<int>(n);
  } else if (arg == "--late-command") {
    ok = ok && read_command(value, &faults->late_command);
  } else if (arg == "--no-reply") {
    ok = ok && read_command(value, &faults->no_reply_command);
  } else if (arg == "--exit-on-request") {
    ok = ok && read_command(value, &faults->exit_on_command);
  } else if (arg == "--drop-events") {
    ok = ok && read_count(value, 1, 1000000, &n);
    faults->drop_every_nth_event = static_cast<unsigned>(n);
  } else {
    return false;
  }
  if (!ok) *error = arg + " needs a value, not \"" + (value == nullptr ? "" : value) + "\"";
  return true;
}

}  // namespace

bool parse_options(int argc, char** argv, Options* options, std::string* error) {
  error->clear();
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (parse_fault(arg, i + 1 < argc ? argv[i + 1] : nullptr, &options->faults, error)) {
      if (!error->empty()) return false;
      ++i;
    } else if (arg == "--verbose") {
      options->verbose = true;
    } else if (arg == "--help" || arg == "-h") {
      options->help = true;
    } else if (arg == "--engine" || arg == "--sinks") {
      if (i + 1 >= argc) {
        *error = arg + " needs a value";
        return false;
      }
      const std::string value = argv[++i];
      const bool engine = arg == "--engine";
      if (engine ? value != "model" && value != "gstreamer" : value != "fake" && value != "auto") {
        *error = "unknown " + arg.substr(2) + " \"" + value + "\"";
        return false;
      }
      (engine ? options->engine : options->sinks) = value;
    } else if (arg == "--time-scale" || arg.rfind("--time-scale=", 0) == 0) {
      std::string value;
      if (arg == "--time-scale") {
        if (i + 1 >= argc) {
          *error = "--time-scale needs a value";
          return false;
        }
        value = argv[++i];
      } else {
        value = arg.substr(std::strlen("--time-scale="));
      }
      char* end = nullptr;
      const double scale = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !std::isfinite(scale) || scale <= 0) {
        *error = "--time-scale needs a number above 0, not \"" + value + "\"";
        return false;
      }
      options->time_scale = scale;
    } else {
      *error = "unknown option \"" + arg + "\"";
      return false;
    }
  }
  if (options->engine == "gstreamer" && options->time_scale != 1.0) {
    *error = "the gstreamer engine plays in real time: --time-scale is for the model engine";
    return false;
  }
  return true;
}

}  // namespace pavo::service
