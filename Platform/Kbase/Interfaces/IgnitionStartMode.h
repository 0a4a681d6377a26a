// Callback interface: the vehicle's ignition came on.
#pragma once

namespace Kbase::Interfaces {

class IgnitionStartMode {
 public:
  virtual ~IgnitionStartMode() = default;
  virtual void RunIgnitionStart() = 0;
};

}  // namespace Kbase::Interfaces
