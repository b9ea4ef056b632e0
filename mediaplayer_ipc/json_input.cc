#include "mediaplayer_ipc/json_input.h"

namespace pavo::mediaplayer {
namespace {

// Runs one jsoncpp conversion; jsoncpp reports a refused one by throwing
// Json::LogicError. `object` is an object (parse_object made sure), so
// member access itself cannot throw.
template <typename T, typename Convert>
bool convert(const Json::Value& object, const char* name, T* out, Convert&& as) {
  const Json::Value* member = object.find(name, name + std::char_traits<char>::length(name));
  if (member == nullptr) {
    *out = as(Json::Value::nullSingleton());
    return true;
  }
  try {
    *out = as(*member);
    return true;
  } catch (const Json::LogicError&) {
    return false;
  }
}

}  // namespace

bool parse_object(const char* text, std::size_t length, Json::Value* root) {
  thread_local Json::Reader reader;
  try {
    return reader.parse(text, text + length, *root, /*collectComments=*/true) && root->isObject();
  } catch (const Json::Exception&) {
    return false;  // e.g. nesting beyond the reader's stack limit
  }
}

bool read_int(const Json::Value& object, const char* name, int* out) {
  return convert(object, name, out, [](const Json::Value& v) { return v.asInt(); });
}
bool read_uint(const Json::Value& object, const char* name, unsigned* out) {
  return convert(object, name, out, [](const Json::Value& v) { return v.asUInt(); });
}
bool read_largest_uint(const Json::Value& object, const char* name, uint64_t* out) {
  return convert(object, name, out,
                 [](const Json::Value& v) { return static_cast<uint64_t>(v.asLargestUInt()); });
}
bool read_double(const Json::Value& object, const char* name, double* out) {
  return convert(object, name, out, [](const Json::Value& v) { return v.asDouble(); });
}
bool read_bool(const Json::Value& object, const char* name, bool* out) {
  return convert(object, name, out, [](const Json::Value& v) { return v.asBool(); });
}
bool read_string(const Json::Value& object, const char* name, std::string* out) {
  return convert(object, name, out, [](const Json::Value& v) { return v.asString(); });
}

}  // namespace pavo::mediaplayer
