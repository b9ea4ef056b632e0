#include "pavo-hbbtv-browser/base64.h"

namespace pavo::hbbtv {

bool decode_base64(const std::string& in, std::string& out) {
  auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  out.clear();
  out.reserve(in.size() / 4 * 3);
  unsigned bits = 0;
  int count = 0;
  for (char c : in) {
    if (c == '=') break;
    const int v = value(c);
    if (v < 0) return false;
    bits = (bits << 6) | static_cast<unsigned>(v);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out.push_back(static_cast<char>((bits >> count) & 0xff));
    }
  }
  return true;
}

std::string encode_base64(const std::string& in) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((in.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v = (static_cast<unsigned char>(in[i]) << 16) | (static_cast<unsigned char>(in[i + 1]) << 8) |
                       static_cast<unsigned char>(in[i + 2]);
    for (int shift : {18, 12, 6, 0}) out.push_back(kDigits[(v >> shift) & 63]);
  }
  if (i < in.size()) {
    unsigned v = static_cast<unsigned char>(in[i]) << 16;
    if (i + 1 < in.size()) v |= static_cast<unsigned char>(in[i + 1]) << 8;
    out.push_back(kDigits[(v >> 18) & 63]);
    out.push_back(kDigits[(v >> 12) & 63]);
    out.push_back(i + 1 < in.size() ? kDigits[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

}  // namespace pavo::hbbtv
