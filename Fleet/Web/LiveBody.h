// The live messages as the body of an answer.
#pragma once

#include <memory>
#include <string>

#include "Fleet/Web/Http.h"
#include "Fleet/Web/Live/LiveHub.h"

namespace Tavi::Web {

/// One message behind the other, as long as the hub runs and the client reads; ends the viewer's place with itself.
class LiveBody final : public BodySource {
 public:
  explicit LiveBody(std::shared_ptr<LiveViewer> viewer) : m_viewer(std::move(viewer)) {}

  std::optional<std::size_t> Read(char* buffer, std::size_t size) override;

 private:
  const std::shared_ptr<LiveViewer> m_viewer;
  MessagePtr m_message;
  std::size_t m_sent = 0;
};

}  // namespace Tavi::Web
