// Request texts without a JSON tree.
//
// Every request of the media-player protocol is a flat JSON object of
// scalar members, sent as the text that Json::Value::toStyledString makes of
// it. StyledObject collects the members and renders that same text, byte for
// byte (members sorted by name, tab indentation, jsoncpp's number and string
// formats), without building a Json::Value: a member that jsoncpp would
// escape sends the whole object through toStyledString instead.
//
// Thread safety: an object is used by one thread at a time.
#ifndef PAVO_MEDIAPLAYER_IPC_STYLED_OBJECT_H
#define PAVO_MEDIAPLAYER_IPC_STYLED_OBJECT_H

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace pavo::mediaplayer {

class StyledObject {
 public:
  static constexpr std::size_t kMaxMembers = 8;

  // Adders store names and texts by pointer: they must outlive render().
  // REQUIRES: distinct names; at most kMaxMembers members.
  void add_int(const char* name, int value);
  void add_uint(const char* name, unsigned value);
  void add_double(const char* name, double value);
  void add_bool(const char* name, bool value);
  // `length` bytes of `text` (which may hold NULs).
  void add_text(const char* name, const char* text, std::size_t length);

  // Replaces *out with the styled text. Throws std::bad_alloc only.
  void render(std::string* out) const;

  // The same object as a Json::Value.
  Json::Value to_value() const;

 private:
  enum class Kind : uint8_t { kInt, kUInt, kDouble, kBool, kText };
  struct Member {
    const char* name;
    Kind kind;
    union {
      int i;
      unsigned u;
      double d;
      bool b;
    } scalar;
    const char* text;
    std::size_t length;
  };
  Member& append(const char* name, Kind kind);

  Member members_[kMaxMembers];
  std::size_t count_ = 0;
};

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_STYLED_OBJECT_H
