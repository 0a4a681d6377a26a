// A request and its answer, as the console's parts see them.
#include "Fleet/Web/Http.h"

#include <algorithm>
#include <cctype>

#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

using Values = std::map<std::string, std::string, std::less<>>;

std::string_view Find(const Values& values, std::string_view name) {
  const auto found = values.find(name);
  return found == values.end() ? std::string_view{} : std::string_view(found->second);
}

}  // namespace

std::string_view Request::GetHeader(std::string_view name) const {
  return Find(headers, name);
}

std::string_view Request::GetQuery(std::string_view name) const {
  return Find(query, name);
}

Response Refuse(int status, std::string_view sentence) {
  return AnswerJson(Kbase::Json::Print({{"error", sentence}}), status);
}

Response AnswerJson(std::string json, int status) {
  Response response;
  response.status = status;
  response.headers = {{"Content-Type", "application/json"}, {"Cache-Control", "no-store"}};
  response.body = std::move(json);
  return response;
}

std::string ToHeaderText(std::string_view text) {
  std::string plain(text);
  for (char& c : plain) c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? ' ' : c;
  return plain;
}

std::string ToLower(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

}  // namespace Tavi::Web
