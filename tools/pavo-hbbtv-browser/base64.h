// Base64 as the DevTools protocol carries binary data (screenshots, bodies,
// frames as data: URLs).
#ifndef PAVO_TOOLS_HBBTV_BASE64_H
#define PAVO_TOOLS_HBBTV_BASE64_H

#include <string>

namespace pavo::hbbtv {

std::string encode_base64(const std::string& in);
// Decodes `in` (padding optional) into `out`; false on a character outside
// the alphabet (`out` then holds what came before it).
bool decode_base64(const std::string& in, std::string& out);

}  // namespace pavo::hbbtv

#endif  // PAVO_TOOLS_HBBTV_BASE64_H
