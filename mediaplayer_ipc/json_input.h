// Texts from other processes, read without trusting them.
//
// Reply and event texts arrive over queues that every local process may
// write. They are parsed with jsoncpp's Reader (comments collected) and read
// with jsoncpp's conversions; what jsoncpp refuses (text nested beyond its
// limit, a member that cannot be converted, such as a string where a number
// is expected or a number beyond the 32-bit range) makes the whole text
// unreadable. Nothing here lets an exception out but std::bad_alloc.
#ifndef PAVO_MEDIAPLAYER_IPC_JSON_INPUT_H
#define PAVO_MEDIAPLAYER_IPC_JSON_INPUT_H

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace pavo::mediaplayer {

// Parses the `length` bytes at `text` into *root with the calling thread's
// own reader (kept for the thread's life: a parse allocates only the tree).
// Returns true when the text is JSON whose root is an object; otherwise
// false, with *root unspecified. Throws std::bad_alloc only.
bool parse_object(const char* text, std::size_t length, Json::Value* root);

// Conversions of one member of a parsed object. A missing member reads as 0,
// 0.0, false or the empty string. Each returns false, leaving *out as it
// was, where jsoncpp refuses the conversion. Throw std::bad_alloc only.
bool read_int(const Json::Value& object, const char* name, int* out);
bool read_uint(const Json::Value& object, const char* name, unsigned* out);
bool read_largest_uint(const Json::Value& object, const char* name, uint64_t* out);
bool read_double(const Json::Value& object, const char* name, double* out);
bool read_bool(const Json::Value& object, const char* name, bool* out);
bool read_string(const Json::Value& object, const char* name, std::string* out);

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_JSON_INPUT_H
