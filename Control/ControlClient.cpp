// One request to a recorder and its reply.
#include "Control/ControlClient.h"

#include <fmt/format.h>

#include "Control/Conversation.h"
#include "Control/SocketAddress.h"

namespace Tavi::Recorder {

std::optional<std::string> Exchange(const std::string& socketPath, const std::string& line, const Patience& patience,
                                    std::string& problem) {
  const auto address = BuildSocketAddress(socketPath, problem);
  if (!address) return std::nullopt;
  Conversation conversation(patience);
  std::string reply;
  std::string rest;
  std::string reason = conversation.Connect(*address);
  if (reason.empty()) reason = conversation.Send(line);
  if (reason.empty()) reason = conversation.Receive(reply, rest);
  if (reason.empty()) return reply;
  problem = fmt::format("no recorder answers at {}: {}", socketPath, reason);
  return std::nullopt;
}

}  // namespace Tavi::Recorder
