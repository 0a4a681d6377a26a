// User and password out of a file.
#pragma once

#include <optional>
#include <string>

namespace Tavi::Web {

struct Credentials {
  std::string user;
  std::string password;
};

/// Reads one line "user:password". Empty, with one sentence in `problem` that names the file and never what is in it,
/// when it cannot be read, others than its owner may read it, or there is no user or no password.
std::optional<Credentials> ReadCredentials(const std::string& path, std::string& problem);

}  // namespace Tavi::Web
