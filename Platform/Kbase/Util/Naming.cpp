// Names and times in text form.
#include "Kbase/Util/Naming.h"

#include <uuid/uuid.h>

#include <array>

namespace Kbase::Util {
namespace {

std::string Format(const char* format, const std::tm& time) {
  std::array<char, 128> text{};
  return {text.data(), std::strftime(text.data(), text.size(), format, &time)};
}

}  // namespace

std::string NewUid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  std::array<char, UUID_STR_LEN> text{};
  uuid_unparse_lower(uuid, text.data());
  return text.data();
}

std::string NewDate(const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return Format(format, local);
}

std::string Replace(std::string_view text, std::string_view from, std::string_view to) {
  std::string result;
  std::size_t done = 0;
  if (!from.empty()) {
    for (std::size_t at = text.find(from); at != std::string_view::npos; at = text.find(from, done)) {
      result.append(text.substr(done, at - done)).append(to);
      done = at + from.size();
    }
  }
  return result.append(text.substr(done));
}

std::string BuildEventFileName(std::string_view base, std::time_t when) {
  std::tm utc{};
  gmtime_r(&when, &utc);
  return std::string(base) + "_" + Format("%Y%m%dT%H%M%SZ", utc);
}

}  // namespace Kbase::Util
