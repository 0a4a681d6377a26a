// The simulated GPS receiver.
#pragma once

#include <cstdint>
#include <string>

#include "Kbase/Interfaces/IThread.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Simulator/Drive.h"
#include "Simulator/DriveClock.h"

namespace Tavi::Simulator {

/// Sends the drive's fixes as NMEA text through a pseudo-terminal, whose slave stands for the receiver's serial port:
/// one epoch for each full second of the wall clock (or `rate` of them a second), shortly after it.
///
/// Start and Stop as with any IThread. The slave can be opened and closed at will, while one runs and before; like a
/// port that nobody has open, it drops what is not read before the next epoch.
class GpsSimulator : public Kbase::Interfaces::IThread {
 public:
  /// From the time of the fix until its text is sent, about what a receiver takes.
  static constexpr std::int64_t SendDelayMs = 60;

  /// Borrows the drive and its clock. `rate`: epochs a second, 1 to 10.
  GpsSimulator(const Drive& drive, const DriveClock& clock, int rate = 1);
  ~GpsSimulator() override;

  /// The slave's device, "/dev/pts/7"; empty, with GetProblem telling why, when there is no pseudo-terminal to be had.
  [[nodiscard]] const std::string& GetPath() const { return m_path; }
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }

 protected:
  void RunBefore() override;
  void Run() override;

 private:
  [[nodiscard]] bool OpenTerminal();
  /// The number, since 1970, of the last epoch that is due to be sent by now.
  [[nodiscard]] std::int64_t DueEpoch() const;
  void Send(std::int64_t epoch);

  const Drive& m_drive;
  const DriveClock& m_clock;
  const int m_rate;
  Ksystem::FileUtils::UniqueFd m_master;
  /// Held open: the master reports an error while no slave is, and the slave's settings are lost with the last one.
  Ksystem::FileUtils::UniqueFd m_slave;
  std::string m_path;
  std::string m_problem;
  std::int64_t m_lastEpoch = 0;
  /// Of the last epoch; a failure is logged once.
  bool m_isFailing = false;
};

}  // namespace Tavi::Simulator
