// User and password out of a file.
#include "Fleet/Web/Rtsp/Credentials.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Web {
namespace {

constexpr std::size_t MostBytes = 512;

}  // namespace

std::optional<Credentials> ReadCredentials(const std::string& path, std::string& problem) {
  const auto fail = [&](std::string_view why) {
    problem = fmt::format("the credentials in {} cannot be used: {}", path, why);
    return std::nullopt;
  };
  // A pipe would hold up the start.
  const auto file = Ksystem::FileUtils::UniqueFd::Open(path, O_RDONLY | O_NONBLOCK);
  struct stat about {};
  if (!file.IsValid() || ::fstat(file.Get(), &about) != 0) return fail(std::strerror(errno));
  if (!S_ISREG(about.st_mode)) return fail("that is no file");
  if ((about.st_mode & (S_IRWXG | S_IRWXO)) != 0) return fail("others may read it; chmod 600 is right");
  std::array<char, MostBytes> bytes;
  const ssize_t size = ::read(file.Get(), bytes.data(), bytes.size());
  if (size < 0) return fail(std::strerror(errno));
  const std::string text(bytes.data(), static_cast<std::size_t>(size));
  const std::string line = text.substr(0, text.find_first_of("\r\n"));
  const std::size_t colon = line.find(':');
  const bool isWhole = colon != std::string::npos && colon > 0 && colon + 1 < line.size() && line.size() < MostBytes;
  if (!isWhole) return fail("its first line is not user:password");
  return Credentials{line.substr(0, colon), line.substr(colon + 1)};
}

}  // namespace Tavi::Web
