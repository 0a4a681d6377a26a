// Registers of the MMA8451Q accelerometer, by the names and values of its datasheet (NXP, MMA8451Q rev. 10.3).
#pragma once

#include <cstdint>

namespace Kdevice::ACC::Mma8451 {

/// FIFO status, once the FIFO is on.
inline constexpr std::uint8_t F_STATUS = 0x00;
inline constexpr std::uint8_t F_OVF = 0x80;
inline constexpr std::uint8_t F_CNT_MASK = 0x3F;
/// Samples (of three axes) that the FIFO takes.
inline constexpr std::uint8_t FifoSamples = 32;

/// With the FIFO and F_READ on, a burst from here yields X, Y, Z, X, Y, Z ... , the oldest sample first.
inline constexpr std::uint8_t OUT_X_MSB = 0x01;

/// May also be set while the chip samples, but from one mode to another only by way of off. The FIFO is emptied when it
/// is switched off and when the chip leaves standby.
inline constexpr std::uint8_t F_SETUP = 0x09;
inline constexpr std::uint8_t F_MODE_OFF = 0x00;
inline constexpr std::uint8_t F_MODE_CIRCULAR = 0x40;

inline constexpr std::uint8_t WHO_AM_I = 0x0D;
inline constexpr std::uint8_t WHO_AM_I_VALUE = 0x1A;

/// FS in bits 1 and 0: 2 g, 4 g, 8 g; bit 4 is the high-pass filter.
inline constexpr std::uint8_t XYZ_DATA_CFG = 0x0E;
inline constexpr std::uint8_t FS_2G = 0x00;
inline constexpr std::uint8_t FS_4G = 0x01;
inline constexpr std::uint8_t FS_8G = 0x02;

inline constexpr std::uint8_t CTRL_REG1 = 0x2A;
/// Data rate in bits 5 to 3, counted from 800 Hz (0) to 1.56 Hz (7).
inline constexpr std::uint8_t DR_SHIFT = 3;
/// Bursts hold each axis's upper byte only.
inline constexpr std::uint8_t F_READ = 0x02;
inline constexpr std::uint8_t ACTIVE = 0x01;
inline constexpr std::uint8_t STANDBY = 0x00;

/// 0: no self-test, no automatic sleep, normal oversampling. RST (bit 6) is left alone: the chip does not acknowledge
/// it.
inline constexpr std::uint8_t CTRL_REG2 = 0x2B;

}  // namespace Kdevice::ACC::Mma8451
