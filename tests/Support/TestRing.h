// Rings and entries for tests that need no source behind them.
#pragma once

#include <memory>

#include "Kbase/Pipeline/IPipelineElement.h"

namespace Tavi::Testing {

/// A ring that nobody but the test fills.
class TestRing : public Kbase::Pipeline::IPipelineElement {
 public:
  explicit TestRing(int size, float fps = 1.0F) : IPipelineElement(size), m_fps(fps) {}
  void Start() override {}
  void Stop() override {}
  float GetFps() override { return m_fps; }

 private:
  const float m_fps;
};

/// An entry with a key-frame state of its own.
class TestEntry : public Kbase::Pipeline::IPipelineCbElement {
 public:
  explicit TestEntry(std::uint64_t id, bool key = true) : IPipelineCbElement(id), m_key(key) {}
  bool IsKeyFrame() const override { return m_key; }

 private:
  const bool m_key;
};

}  // namespace Tavi::Testing
