#include "pavo-media-service/request.h"

#include <memory>

namespace pavo::service {

std::string compact_json(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

bool Request::parse(const char* text, std::size_t len) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (text == nullptr || len == 0) {
    complaint_ = "empty request";
    return false;
  }
  if (!reader->parse(text, text + len, &value_, &errors)) {
    complaint_ = "not JSON";
    return false;
  }
  if (!value_.isObject()) {
    complaint_ = "not a JSON object";
    return false;
  }
  if (!get_int("event_type", &command_)) return false;
  return true;
}

const Json::Value& Request::member(const char* name) const {
  // The const operator[] never inserts: a missing member reads as null.
  return value_[name];
}

bool Request::refuse(const char* name, const char* expected) {
  complaint_ = std::string("member \"") + name + "\" " +
               (value_.isMember(name) ? "is not " : "is missing, expected ") + expected;
  return false;
}

bool Request::get_int(const char* name, int* out) {
  const Json::Value& v = member(name);
  if (!v.isInt()) return refuse(name, "an integer");
  *out = v.asInt();
  return true;
}

bool Request::get_uint(const char* name, unsigned* out) {
  const Json::Value& v = member(name);
  if (!v.isUInt()) return refuse(name, "an unsigned integer");
  *out = v.asUInt();
  return true;
}

bool Request::get_number(const char* name, double* out) {
  const Json::Value& v = member(name);
  if (!v.isNumeric()) return refuse(name, "a number");
  *out = v.asDouble();
  return true;
}

bool Request::get_bool(const char* name, bool* out) {
  const Json::Value& v = member(name);
  if (!v.isBool()) return refuse(name, "a boolean");
  *out = v.asBool();
  return true;
}

bool Request::get_string(const char* name, std::string* out) {
  const Json::Value& v = member(name);
  if (!v.isString()) return refuse(name, "a string");
  *out = v.asString();
  return true;
}

}  // namespace pavo::service
