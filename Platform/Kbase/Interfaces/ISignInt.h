// Callback interface: the process was asked to end (SIGINT, SIGTERM).
#pragma once

namespace Kbase::Interfaces {

class ISignInt {
 public:
  virtual ~ISignInt() = default;
  virtual void RunSigInt() = 0;
};

}  // namespace Kbase::Interfaces
