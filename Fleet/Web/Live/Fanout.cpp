// All viewers, and what a new one needs before it can follow.
#include "Fleet/Web/Live/Fanout.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "Fleet/Web/Live/LiveViewer.h"

namespace Tavi::Web {
namespace {

constexpr MessageKind GetInitKind(std::size_t index) {
  return static_cast<MessageKind>(1 + 2 * index);
}

constexpr MessageKind GetFragmentKind(std::size_t index) {
  return static_cast<MessageKind>(2 + 2 * index);
}

MessagePtr MakeGap(std::size_t index) {
  return MakeJson(fmt::format(R"({{"gap":"{}"}})", MediaStreamNames[index]));
}

}  // namespace

std::shared_ptr<LiveViewer> Fanout::Add(std::size_t most) {
  auto viewer = std::make_shared<LiveViewer>(shared_from_this());
  const std::lock_guard lock(m_mutex);
  if (m_hasEnded || m_viewers.size() >= most) {
    viewer->End();
    return nullptr;
  }
  m_viewers.push_back(viewer.get());
  StartLocked(*viewer);
  return viewer;
}

std::size_t Fanout::Count() const {
  const std::lock_guard lock(m_mutex);
  return m_viewers.size();
}

bool Fanout::HasEnded() const {
  const std::lock_guard lock(m_mutex);
  return m_hasEnded;
}

void Fanout::Remove(const LiveViewer* viewer) {
  const std::lock_guard lock(m_mutex);
  std::erase(m_viewers, viewer);
}

void Fanout::Rejoin(LiveViewer& viewer) {
  const std::lock_guard lock(m_mutex);
  if (!m_hasEnded) StartLocked(viewer);
}

void Fanout::PublishInit(std::size_t index, std::string_view codec, std::span<const std::uint8_t> segment) {
  const MessagePtr message = MakeInit(GetInitKind(index), codec, segment);
  const std::lock_guard lock(m_mutex);
  Stream& stream = m_streams[index];
  stream.init = message;
  stream.fragments.clear();
  stream.bytes = 0;
  DistributeLocked(message);
}

void Fanout::PublishFragment(std::size_t index, std::span<const std::uint8_t> fragment, bool isKeyFrame) {
  const std::lock_guard lock(m_mutex);
  Stream& stream = m_streams[index];
  const MessagePtr message = MakeFragment(GetFragmentKind(index), fragment, isKeyFrame, stream.number++);
  Keep(stream, message);
  DistributeLocked(message);
}

void Fanout::Keep(Stream& stream, const MessagePtr& message) {
  const std::size_t bytes = message->bytes.size();
  if (message->isKeyFrame || stream.bytes + bytes > MostKeptBytes) {
    stream.fragments.clear();
    stream.bytes = 0;
  }
  if (stream.fragments.empty() && !message->isKeyFrame) return;
  stream.fragments.push_back(message);
  stream.bytes += bytes;
}

void Fanout::PublishJson(std::string_view text, std::string_view topic) {
  const MessagePtr message = MakeJson(text);
  const std::lock_guard lock(m_mutex);
  if (!topic.empty()) m_newest.insert_or_assign(std::string(topic), message);
  DistributeLocked(message);
}

void Fanout::PublishGap(std::size_t index) {
  const MessagePtr message = MakeGap(index);
  const std::lock_guard lock(m_mutex);
  DistributeLocked(message);
}

void Fanout::Forget() {
  const std::lock_guard lock(m_mutex);
  for (Stream& stream : m_streams) {
    stream.init.reset();
    stream.fragments.clear();
    stream.bytes = 0;
  }
  m_newest.clear();
}

void Fanout::End() {
  const std::lock_guard lock(m_mutex);
  m_hasEnded = true;
  for (LiveViewer* viewer : m_viewers) viewer->End();
}

void Fanout::DistributeLocked(const MessagePtr& message) {
  const auto now = std::chrono::steady_clock::now();
  for (LiveViewer* viewer : m_viewers) viewer->Push(message, now);
}

/// From where `viewer` was, if that is kept still, and else from the newest key frames.
void Fanout::StartLocked(LiveViewer& viewer) {
  const auto now = std::chrono::steady_clock::now();
  viewer.BeginAnew();
  for (const auto& [topic, message] : m_newest) viewer.Give(message, now);
  for (std::size_t i = 0; i < MediaStreams; ++i) {
    const Stream& stream = m_streams[i];
    const std::uint64_t wanted = viewer.GetWanted(i);
    const bool isKept = !stream.fragments.empty() && stream.fragments.front()->number <= wanted;
    if (viewer.HasBegun(i) && wanted != stream.number && !isKept) viewer.Give(MakeGap(i), now);
    if (stream.init) viewer.GiveInit(i, stream.init, now);
    for (const MessagePtr& fragment : stream.fragments) {
      if (!viewer.HasBegun(i) || fragment->number >= wanted) viewer.Give(fragment, now);
    }
    viewer.AwaitKey(i, stream.fragments.empty() && !(viewer.HasBegun(i) && wanted == stream.number));
  }
}

}  // namespace Tavi::Web
