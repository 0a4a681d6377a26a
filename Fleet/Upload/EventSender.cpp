// One event's way to the far side.
#include "Fleet/Upload/EventSender.h"

#include <fmt/format.h>

#include <algorithm>

namespace Tavi::Upload {
namespace {

using Files = std::vector<UploadFile>;

/// After the first sending, what turned out to be wrong is sent once more: it may be half of what a break left.
constexpr int Rounds = 2;

Files LeaveOut(const Files& files, const Names& names) {
  Files rest;
  std::ranges::copy_if(files, std::back_inserter(rest), [&](const auto& file) { return !names.contains(file.name); });
  return rest;
}

Files ChooseFiles(const Manifest& manifest, bool withStreams) {
  Files files;
  std::ranges::copy_if(manifest.files, std::back_inserter(files),
                       [&](const auto& file) { return withStreams || file.part != Part::Stream; });
  return files;
}

UploadFile DescribeMarker(const Manifest& manifest, const std::string& text) {
  return {CompleteName, text.size(), HashText(text, HashType::Sha256), HashText(text, manifest.farType), Part::Small};
}

}  // namespace

std::optional<Manifest> EventSender::Build(const std::string& event, SendResult& result, std::string& problem) {
  result = SendResult::Failed;
  const auto type = m_remote.GetHashType(problem);
  if (!type) return std::nullopt;
  ManifestTrouble trouble = ManifestTrouble::None;
  auto manifest = BuildManifest(m_eventsDir, event, *type, trouble, problem);
  if (trouble == ManifestTrouble::Damaged) result = SendResult::Damaged;
  if (trouble == ManifestTrouble::Gone) result = SendResult::Gone;
  return manifest;
}

bool EventSender::SendMissing(const Manifest& manifest, const Files& missing, std::string& problem) {
  const bool breaksMarker =
      std::ranges::any_of(missing, [](const UploadFile& file) { return file.part != Part::Stream; });
  // Whoever finds one while its files are replaced would believe it.
  if (breaksMarker && !m_remote.Remove(manifest.event, CompleteName, problem)) return false;
  for (const auto part : {Part::Small, Part::Clip, Part::Stream}) {
    Files batch;
    std::ranges::copy_if(missing, std::back_inserter(batch), [&](const auto& file) { return file.part == part; });
    if (!m_remote.Send(m_eventsDir + "/" + manifest.event, manifest.event, batch, problem)) return false;
  }
  return true;
}

bool EventSender::BringAll(const Manifest& manifest, const Files& files, std::string& problem) {
  auto there = m_remote.FindLikely(manifest, files, problem);
  for (int round = 0; there && round < Rounds; ++round) {
    if (!SendMissing(manifest, LeaveOut(files, *there), problem)) return false;
    there = m_remote.FindRight(manifest, files, problem);
    if (there && there->size() == files.size()) return true;
  }
  if (there) {
    const Files wrong = LeaveOut(files, *there);
    problem = fmt::format("{} of {} files are not on the far side as they were sent, {} the first", wrong.size(),
                          files.size(), wrong.front().name);
  }
  return false;
}

bool EventSender::Mark(const Manifest& manifest, const UploadFile& marker, const std::string& text,
                       std::string& problem) {
  auto right = m_remote.FindRight(manifest, {marker}, problem);
  if (!right) return false;
  if (!right->empty()) return true;
  if (!m_remote.Put(manifest.event, CompleteName, text, problem)) return false;
  right = m_remote.FindRight(manifest, {marker}, problem);
  if (right && right->empty()) problem = fmt::format("{} is not on the far side as it was sent", CompleteName);
  return right && !right->empty();
}

SendResult EventSender::Send(const std::string& event, bool withStreams, std::string& problem) {
  SendResult result = SendResult::Failed;
  const auto manifest = Build(event, result, problem);
  if (!manifest) return result;
  const bool isWhole = withStreams || !HasStreams(*manifest);
  const std::string text = FormatComplete(*manifest, isWhole);
  if (!BringAll(*manifest, ChooseFiles(*manifest, isWhole), problem)) return SendResult::Failed;
  if (!Mark(*manifest, DescribeMarker(*manifest, text), text, problem)) return SendResult::Failed;
  return isWhole ? SendResult::Whole : SendResult::WithoutStreams;
}

SendResult EventSender::Prove(const std::string& event, std::string& problem) {
  SendResult result = SendResult::Failed;
  const auto manifest = Build(event, result, problem);
  if (!manifest) return result;
  Files files = manifest->files;
  files.push_back(DescribeMarker(*manifest, FormatComplete(*manifest, true)));
  const auto right = m_remote.FindRight(*manifest, files, problem);
  if (!right) return SendResult::Failed;
  problem.clear();
  return right->size() == files.size() ? SendResult::Whole : SendResult::Failed;
}

}  // namespace Tavi::Upload
