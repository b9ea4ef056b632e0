// One request as the service reads it: parsed once, then read member by
// member with the JSON type that the protocol tables give. A member that is
// missing or of another type is refused with a complaint naming it; nothing
// here throws.
#ifndef PAVO_MEDIA_SERVICE_REQUEST_H
#define PAVO_MEDIA_SERVICE_REQUEST_H

#include <json/json.h>

#include <cstddef>
#include <string>

namespace pavo::service {

// Renders a value as one line of JSON without blanks (wire and verbose output).
std::string compact_json(const Json::Value& value);

// Not thread-safe; one per request.
class Request {
 public:
  // Parses `len` bytes of `text`. Returns true for a JSON object with an
  // integer "event_type"; false with a complaint otherwise.
  bool parse(const char* text, std::size_t len);

  int command() const { return command_; }
  const Json::Value& value() const { return value_; }
  const std::string& complaint() const { return complaint_; }

  // Each writes *out and returns true when the member is present with the
  // table's type; returns false with a complaint and leaves *out untouched
  // otherwise. Numbers: "int" accepts any integral value that fits 32 bits,
  // "number" any JSON number.
  bool get_int(const char* name, int* out);
  bool get_uint(const char* name, unsigned* out);
  bool get_number(const char* name, double* out);
  bool get_bool(const char* name, bool* out);
  bool get_string(const char* name, std::string* out);

 private:
  const Json::Value& member(const char* name) const;
  bool refuse(const char* name, const char* expected);

  Json::Value value_;
  int command_ = -1;
  std::string complaint_;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_REQUEST_H
