// JSON values and their text.
#include "Kbase/Json/Json.h"

namespace Kbase::Json {
namespace {

constexpr int OneLine = -1;
constexpr int Indent = 2;

std::string Dump(const Object& value, int indent, bool isAscii) {
  return value.dump(indent, ' ', isAscii, Object::error_handler_t::replace);
}

}  // namespace

std::string Serialize(const Array& array) {
  return Dump(Object(array), OneLine, false);
}

std::string Print(const Object& value) {
  return Dump(value, OneLine, false);
}

std::string PrintLines(const Object& value) {
  return Dump(value, Indent, false) + "\n";
}

std::string PrintAscii(const Object& value) {
  return Dump(value, OneLine, true);
}

Object Parse(std::string_view text) {
  return Object::parse(text, nullptr, false);
}

bool IsUtf8(const std::string& text) {
  try {
    static_cast<void>(Object(text).dump());
    return true;
  } catch (const Object::type_error&) {
    return false;
  }
}

}  // namespace Kbase::Json
