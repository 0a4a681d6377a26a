// Callback interface: the vehicle's ignition went off.
#pragma once

namespace Kbase::Interfaces {

class IgnitionOffMode {
 public:
  virtual ~IgnitionOffMode() = default;
  virtual void RunIgnitionOff() = 0;
};

}  // namespace Kbase::Interfaces
