// Command line of pavo-media-service.
#ifndef PAVO_MEDIA_SERVICE_OPTIONS_H
#define PAVO_MEDIA_SERVICE_OPTIONS_H

#include <string>

#include "pavo-media-service/faults.h"

namespace pavo::service {

struct Options {
  double time_scale = 1.0;  // > 0
  bool verbose = false;
  bool help = false;
  std::string engine = "model";  // "model" or "gstreamer"
  std::string sinks;             // gstreamer: "fake" or "auto"; empty: fake without a display
  FaultOptions faults;           // none unless asked for
};

// The usage text printed by --help.
const char* usage();

// Reads argv[1..argc-1]. Returns true with *options filled; false with
// *error set for an unknown option or a bad value.
bool parse_options(int argc, char** argv, Options* options, std::string* error);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_OPTIONS_H
