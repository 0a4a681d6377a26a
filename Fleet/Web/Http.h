// A request and its answer, as the console's parts see them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Web {

/// Plain values, complete: the body has been read.
struct Request {
  std::string method;
  /// Unescaped, without the query.
  std::string path;
  /// Unescaped; of a name that is there twice the last one.
  std::map<std::string, std::string, std::less<>> query;
  /// Names in lower case; of a name that is there twice the first one.
  std::map<std::string, std::string, std::less<>> headers;
  std::string body;
  /// By TLS.
  bool isEncrypted = false;

  /// Empty where there is none.
  [[nodiscard]] std::string_view GetHeader(std::string_view name) const;
  [[nodiscard]] std::string_view GetQuery(std::string_view name) const;
};

/// A body that is made while it is sent, on the connection's own thread, which alone calls it.
class BodySource {
 public:
  virtual ~BodySource() = default;
  /// At most `size` bytes; may wait. 0 at the end, empty when it cannot go on: the client then sees that it was cut.
  virtual std::optional<std::size_t> Read(char* buffer, std::size_t size) = 0;
};

/// A part of a file that is sent as it lies there.
struct FileBody {
  Ksystem::FileUtils::UniqueFd file;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

/// The body is `file` or `stream` where there is one, else `body`.
struct Response {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::optional<FileBody> file;
  std::unique_ptr<BodySource> stream;
};

/// `{"error":sentence}`, as every refusal of the console.
Response Refuse(int status, std::string_view sentence);
/// `json` is the text of an answer.
Response AnswerJson(std::string json, int status = 200);

/// As names of headers and hosts compare: ASCII letters.
std::string ToLower(std::string_view text);

/// A header's value must not end its line: control characters become blanks.
std::string ToHeaderText(std::string_view text);

}  // namespace Tavi::Web
