#include "mediaplayer_ipc/styled_object.h"

#include <cassert>
#include <charconv>
#include <cstring>

namespace pavo::mediaplayer {
namespace {

// jsoncpp's writer copies these bytes into a quoted string unchanged; any
// other byte is escaped (control characters, quote, backslash, DEL and,
// byte by byte, non-ASCII text as \u sequences).
bool written_unchanged(const char* text, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\') return false;
  }
  return true;
}

template <typename Integer>
void append_decimal(std::string* out, Integer value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out->append(digits, end);
}

}  // namespace

StyledObject::Member& StyledObject::append(const char* name, Kind kind) {
  assert(count_ < kMaxMembers);
  Member& m = members_[count_ < kMaxMembers ? count_++ : kMaxMembers - 1];
  m.name = name;
  m.kind = kind;
  m.text = nullptr;
  m.length = 0;
  return m;
}

void StyledObject::add_int(const char* name, int value) { append(name, Kind::kInt).scalar.i = value; }
void StyledObject::add_uint(const char* name, unsigned value) {
  append(name, Kind::kUInt).scalar.u = value;
}
void StyledObject::add_double(const char* name, double value) {
  append(name, Kind::kDouble).scalar.d = value;
}
void StyledObject::add_bool(const char* name, bool value) { append(name, Kind::kBool).scalar.b = value; }
void StyledObject::add_text(const char* name, const char* text, std::size_t length) {
  Member& m = append(name, Kind::kText);
  m.text = text;
  m.length = length;
}

Json::Value StyledObject::to_value() const {
  Json::Value object(Json::objectValue);
  for (std::size_t i = 0; i < count_; ++i) {
    const Member& m = members_[i];
    Json::Value& slot = object[m.name];
    switch (m.kind) {
      case Kind::kInt: slot = m.scalar.i; break;
      case Kind::kUInt: slot = m.scalar.u; break;
      case Kind::kDouble: slot = m.scalar.d; break;
      case Kind::kBool: slot = m.scalar.b; break;
      case Kind::kText: slot = Json::Value(m.text, m.text + m.length); break;
    }
  }
  return object;
}

void StyledObject::render(std::string* out) const {
  for (std::size_t i = 0; i < count_; ++i) {
    const Member& m = members_[i];
    if (m.kind == Kind::kText && !written_unchanged(m.text, m.length)) {
      *out = to_value().toStyledString();
      return;
    }
  }
  // jsoncpp keeps object members ordered by name, byte by byte (an
  // insertion sort: there are at most kMaxMembers).
  const Member* order[kMaxMembers];
  for (std::size_t i = 0; i < count_; ++i) {
    std::size_t j = i;
    for (; j > 0 && std::strcmp(order[j - 1]->name, members_[i].name) > 0; --j) order[j] = order[j - 1];
    order[j] = &members_[i];
  }

  out->clear();
  if (count_ == 0) {
    out->append("{}\n");
    return;
  }
  out->append("{\n");
  for (std::size_t k = 0; k < count_; ++k) {
    const Member& m = *order[k];
    out->append("\t\"");
    out->append(m.name);
    out->append("\" : ");
    switch (m.kind) {
      case Kind::kInt: append_decimal(out, m.scalar.i); break;
      case Kind::kUInt: append_decimal(out, m.scalar.u); break;
      case Kind::kDouble: out->append(Json::valueToString(m.scalar.d)); break;
      case Kind::kBool: out->append(m.scalar.b ? "true" : "false"); break;
      case Kind::kText:
        out->push_back('"');
        out->append(m.text, m.length);
        out->push_back('"');
        break;
    }
    if (k + 1 < count_) out->push_back(',');
    out->push_back('\n');
  }
  out->append("}\n");
}

}  // namespace pavo::mediaplayer
