// The recorder's status, once a second for all viewers.
#pragma once

#include <memory>
#include <string>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Web {

class Fanout;

/// The thread "LIVE-STATUS": asks while there are viewers, and publishes what it is told. A recorder that does not
/// answer is no message of its own: the live connection tells.
class StatusPoll : public Kbase::Interfaces::IThread {
 public:
  StatusPoll(std::string controlSocket, std::shared_ptr<Fanout> fanout);
  ~StatusPoll() override;

  /// A viewer has come: do not wait for the next second.
  void AskNow() { Wake(); }

 private:
  void Run() override;

  const std::string m_controlSocket;
  const std::shared_ptr<Fanout> m_fanout;
};

}  // namespace Tavi::Web
