// The answer to one request.
#include "Control/Reply.h"

#include <atomic>
#include <cassert>
#include <nlohmann/json.hpp>
#include <utility>

#include "Control/Protocol.h"
#include "Control/ReplyMailbox.h"

namespace Tavi::Recorder {

using Json = nlohmann::ordered_json;

struct Reply::State {
  State(std::shared_ptr<ReplyMailbox> mailboxOfServer, std::uint64_t connectionNumber, Json requestId)
      : mailbox(std::move(mailboxOfServer)), connection(connectionNumber), id(std::move(requestId)) {}
  ~State() {
    try {
      Answer(BuildError("the request was dropped without an answer"));
    } catch (...) {
      // No memory for an answer: the client's own time limit ends its waiting.
    }
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void Answer(const Json& fields, Take take = {}) {
    if (answered.exchange(true)) return;
    std::string line = Format(fields);
    std::string refusal;
    if (take) refusal = Format(BuildError("this wants a connection of its own; send nothing before or behind it"));
    if (line.size() > MaxReplyBytes) {
      line = Format(BuildError("the answer is longer than a reply may be"));
      take = {};
    }
    mailbox->Post({connection, std::move(line), std::move(take), std::move(refusal)});
  }

  [[nodiscard]] std::string Format(const Json& fields) const {
    Json reply = Json::object();
    if (!id.is_null()) reply["id"] = id;
    reply["ok"] = true;
    for (const auto& [name, value] : fields.items()) {
      if (name != "id") reply[name] = value;
    }
    return BuildLine(reply);
  }

  const std::shared_ptr<ReplyMailbox> mailbox;
  const std::uint64_t connection;
  const Json id;
  std::atomic<bool> answered{false};
};

Reply::Reply(std::shared_ptr<ReplyMailbox> mailbox, std::uint64_t connection, Json id)
    : m_state(std::make_shared<State>(std::move(mailbox), connection, std::move(id))) {}

void Reply::operator()(const Json& fields) const {
  assert(fields.is_object() || fields.is_null());
  m_state->Answer(fields);
}

void Reply::HandOver(const Json& fields, Take take) const {
  assert(fields.is_object() && take);
  m_state->Answer(fields, std::move(take));
}

void Reply::Refuse(const std::string& sentence) const {
  m_state->Answer(BuildError(sentence));
}

}  // namespace Tavi::Recorder
