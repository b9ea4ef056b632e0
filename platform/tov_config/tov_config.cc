// Development stand-in of the platform configuration library: reads
// `key=value` lines from the file named by the environment variable
// PAVO_TOV_CONFIG. Blank lines and lines starting with '#' are skipped.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>

#include "tov_config.h"

namespace {

std::string trim(const std::string& s) {
  const auto first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  const auto last = s.find_last_not_of(" \t\r");
  return s.substr(first, last - first + 1);
}

bool parse_int(const std::string& text, int* out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
  *out = static_cast<int>(v);
  return true;
}

}  // namespace

int pavo_tov_config_get_int(const std::string& key, int* value) {
  const char* path = std::getenv("PAVO_TOV_CONFIG");
  if (path == nullptr || value == nullptr) return -1;
  std::ifstream file(path);
  if (!file) return -1;
  std::string line;
  while (std::getline(file, line)) {
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    const auto eq = line.find('=');
    if (eq == std::string::npos || trim(line.substr(0, eq)) != key) continue;
    int parsed;
    if (!parse_int(trim(line.substr(eq + 1)), &parsed)) return -1;
    *value = parsed;
    return 0;
  }
  return -1;
}
