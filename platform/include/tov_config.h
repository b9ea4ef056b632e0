// The platform configuration library.
#ifndef PAVO_PLATFORM_TOV_CONFIG_H
#define PAVO_PLATFORM_TOV_CONFIG_H

#include <string>

// Reads the integer configuration value `key` into *value.
// Returns 0 when the value was read; non-zero otherwise, leaving *value as it was.
int pavo_tov_config_get_int(const std::string& key, int* value);

#endif  // PAVO_PLATFORM_TOV_CONFIG_H
