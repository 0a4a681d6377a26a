// Register access to the chips of one I2C bus.
#include "Kdevice/I2C/I2c.h"

#include <array>
#include <map>
#include <mutex>
#include <utility>

#include "Kdevice/I2C/KernelBus.h"

namespace Kdevice::I2C {
namespace {

/// The models that stand in the kernel's place, by bus.
struct Models {
  std::mutex mutex;
  std::map<int, std::shared_ptr<I2cBus>> byBus;
};

Models& GetModels() {
  static Models models;
  return models;
}

std::shared_ptr<I2cBus> FindModel(int bus) {
  Models& models = GetModels();
  const std::lock_guard lock(models.mutex);
  const auto found = models.byBus.find(bus);
  return found == models.byBus.end() ? nullptr : found->second;
}

}  // namespace

I2c::I2c(int bus) : m_bus(bus) {}

I2c::~I2c() = default;

bool I2c::Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
  if (const auto model = FindModel(m_bus)) return model->Transfer(address, out, in);
  if (!m_kernel) m_kernel = std::make_unique<KernelBus>(m_bus);
  return m_kernel->Transfer(address, out, in);
}

bool I2c::WriteRegister(std::uint8_t address, std::uint8_t reg, std::uint8_t value) {
  const std::array<std::uint8_t, 2> out{reg, value};
  return Transfer(address, out, {});
}

bool I2c::ReadRegisters(std::uint8_t address, std::uint8_t reg, std::span<std::uint8_t> values) {
  return Transfer(address, {&reg, 1}, values);
}

void I2c::Attach(int bus, std::shared_ptr<I2cBus> model) {
  Models& models = GetModels();
  {
    const std::lock_guard lock(models.mutex);
    models.byBus[bus].swap(model);
  }
  // `model`, which is now the one before, is released here.
}

}  // namespace Kdevice::I2C
