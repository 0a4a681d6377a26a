// The answer to one request, given at once or later, from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Recorder {

class ReplyMailbox;

/// Copies stand for the same answer: the first call counts, later ones do nothing. When the last copy goes without a
/// call the client is told that its request was dropped, so that nobody waits for ever. Thread-safe, never blocks, and
/// harmless after the client has left or the server is gone.
class Reply {
 public:
  /// `id`: echoed unless null.
  Reply(std::shared_ptr<ReplyMailbox> mailbox, std::uint64_t connection, nlohmann::ordered_json id);

  /// Answers with the members of `fields`, an object; null has none. "ok" is true unless `fields` says otherwise.
  void operator()(const nlohmann::ordered_json& fields) const;
  /// Called on the thread "CONTROL" with a client's socket (non-blocking), which is the callee's from then on. It must
  /// not block.
  using Take = std::function<void(Ksystem::FileUtils::UniqueFd)>;
  /// Answers in the same way, and gives the connection away when the answer has been written: nothing that follows it
  /// is the server's. The client must have asked for nothing else that is unanswered, and sent nothing behind its
  /// request; else it is refused, and stays. `take` is let go without a call where the client leaves before.
  void HandOver(const nlohmann::ordered_json& fields, Take take) const;
  /// Answers {"ok":false,"error":sentence}.
  void Refuse(const std::string& sentence) const;

 private:
  struct State;
  std::shared_ptr<State> m_state;
};

}  // namespace Tavi::Recorder
