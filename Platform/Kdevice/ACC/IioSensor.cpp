// An accelerometer of the kernel's Industrial I/O subsystem, read through its buffer.
#include "Kdevice/ACC/IioSensor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace Kdevice::ACC {
namespace {

using Ksystem::FileUtils::UniqueFd;

/// Of records, in one read.
constexpr std::size_t MostAtOnce = 128;

std::string Describe(const char* action, const std::string& path) {
  const int error = errno;
  return std::string(action) + " " + path + ": " + std::generic_category().message(error);
}

}  // namespace

std::string IioSensor::Open(const std::string& wanted, int fullScaleG) {
  Close();
  m_setup = {};
  std::string fault = SetUpIio(m_places, wanted, fullScaleG, m_setup);
  if (!fault.empty()) return fault;
  const std::string node = m_places.nodes + m_setup.device;
  m_node = UniqueFd::Open(node, O_RDONLY | O_NONBLOCK);
  m_bytes.resize(m_setup.recordBytes * MostAtOnce);
  m_held = 0;
  if (m_node.IsValid()) return {};
  fault = Describe("cannot open", node);
  Close();
  return fault;
}

void IioSensor::Close() {
  m_node.Close();
  if (!m_setup.device.empty()) StopIio(m_places, m_setup);
  m_setup.device.clear();
}

std::string IioSensor::Read(std::chrono::milliseconds timeout, std::vector<Sample>& samples) {
  samples.clear();
  pollfd waited{m_node.Get(), POLLIN, 0};
  const int ready = ::poll(&waited, 1, static_cast<int>(timeout.count()));
  if (ready < 0 && errno != EINTR) return Describe("cannot wait for", m_setup.device);
  if (ready <= 0) return {};
  if ((waited.revents & POLLIN) == 0) return m_setup.device + " is gone";
  const ssize_t got = ::read(m_node.Get(), m_bytes.data() + m_held, m_bytes.size() - m_held);
  if (got < 0) return errno == EAGAIN || errno == EINTR ? "" : Describe("cannot read", m_setup.device);
  m_held += static_cast<std::size_t>(got);
  const std::span<const std::uint8_t> bytes(m_bytes.data(), m_held);
  std::size_t used = 0;
  for (; used + m_setup.recordBytes <= m_held; used += m_setup.recordBytes) {
    samples.push_back(Decode(bytes.subspan(used, m_setup.recordBytes)));
  }
  m_held -= used;
  std::memmove(m_bytes.data(), m_bytes.data() + used, m_held);
  return {};
}

IioSensor::Sample IioSensor::Decode(std::span<const std::uint8_t> record) const {
  Mounting::Vector sensor{};
  for (std::size_t i = 0; i < sensor.size(); ++i) {
    const auto raw = static_cast<double>(m_setup.axes[i].Read(record));
    sensor[i] = static_cast<float>((raw + m_setup.offset[i]) * m_setup.scale[i]);
  }
  Sample sample;
  for (std::size_t row = 0; row < sensor.size(); ++row) {
    for (std::size_t i = 0; i < sensor.size(); ++i) sample.g[row] += m_setup.mountMatrix[row][i] * sensor[i];
  }
  if (m_setup.timestamp) sample.at = std::chrono::nanoseconds(m_setup.timestamp->Read(record));
  return sample;
}

std::optional<IioField> IioField::Parse(const std::string& type) {
  IioField field;
  char end = 0;
  char sign = 0;
  unsigned bits = 0;
  unsigned storage = 0;
  unsigned shift = 0;
  char more = 0;
  const int read = std::sscanf(type.c_str(), "%ce:%c%u/%u>>%u%c", &end, &sign, &bits, &storage, &shift, &more);
  const bool isSize = storage == 8 || storage == 16 || storage == 32 || storage == 64;
  if (read != 5 || !isSize || bits == 0 || bits + shift > storage) return std::nullopt;
  if ((end != 'l' && end != 'b') || (sign != 's' && sign != 'u')) return std::nullopt;
  field.isBigEndian = end == 'b';
  field.isSigned = sign == 's';
  field.bits = bits;
  field.bytes = storage / 8;
  field.shift = shift;
  return field;
}

std::int64_t IioField::Read(std::span<const std::uint8_t> record) const {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < bytes; ++i) {
    value = value << 8U | record[offset + (isBigEndian ? i : bytes - 1 - i)];
  }
  value >>= shift;
  const unsigned unused = 64 - bits;
  value <<= unused;
  return isSigned ? static_cast<std::int64_t>(value) >> unused : static_cast<std::int64_t>(value >> unused);
}

}  // namespace Kdevice::ACC
