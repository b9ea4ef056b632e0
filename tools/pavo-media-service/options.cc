#include "pavo-media-service/options.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace pavo::service {

const char* usage() {
  return "Usage: pavo-media-service [--time-scale X] [--engine model|gstreamer]\n"
         "                          [--sinks fake|auto] [--verbose] [--help]\n"
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
         "Media, chosen by the last path segment of the URL: vod.mp4 (60 s), short.mp4\n"
         "(3 s), live.ts, drm.mp4 (30 s, protected), error-network.mp4,\n"
         "error-format.mp4, error-decoder.mp4, error-encrypted.mp4; anything else\n"
         "fails like error-network.mp4.\n";
}

bool parse_options(int argc, char** argv, Options* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--verbose") {
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
