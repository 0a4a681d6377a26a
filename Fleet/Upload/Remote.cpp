// The far side, as rclone reaches it.
#include "Fleet/Upload/Remote.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "Kbase/Json/Json.h"

namespace Tavi::Upload {
namespace {

/// rclone's status for a directory that is not there (rclone documentation, exit codes).
constexpr int NoDirectory = 3;
/// However slow, a network that carries less than this is as good as none: half of what GPRS gives.
constexpr std::uint64_t LeastBytesPerSecond = 2048;

std::string JoinNames(const std::vector<UploadFile>& files) {
  std::string names;
  for (const auto& file : files) names += file.name + "\n";
  return names;
}

std::uint64_t SumBytes(const std::vector<UploadFile>& files) {
  std::uint64_t bytes = 0;
  for (const auto& file : files) bytes += file.bytes;
  return bytes;
}

/// In bytes a second; of what may be sent at most half.
std::uint64_t GetLeastRate(int bandwidthKiBps) {
  const auto half = static_cast<std::uint64_t>(bandwidthKiBps) * 512;
  return half == 0 ? LeastBytesPerSecond : std::min(LeastBytesPerSecond, half);
}

}  // namespace

Remote::Remote(UploadSettings settings, const StopSignal& stop, int lockFd, std::function<void()> onTick)
    : m_settings(std::move(settings)), m_stop(stop), m_lockFd(lockFd), m_onTick(std::move(onTick)) {}

std::string Remote::GetPath(const std::string& event) const {
  const char last = m_settings.remote.back();
  return m_settings.remote + (last == ':' || last == '/' ? "" : "/") + event;
}

ChildResult Remote::Run(std::vector<std::string> words, const std::string& input, std::uint64_t bytes) {
  ChildOrder order;
  order.words = {m_settings.rclone, "--config=" + m_settings.rcloneConfig, "--log-level=ERROR",
                 // Retrying is ours: it is to be told, and to take its pauses.
                 "--retries=1", "--low-level-retries=2", "--ask-password=false",
                 fmt::format("--contimeout={}s", m_settings.stallSeconds),
                 fmt::format("--timeout={}s", m_settings.stallSeconds),
                 // In one piece the store's own checksum is that of the file.
                 "--s3-upload-cutoff=5G"};
  if (m_settings.bandwidthKiBps > 0) order.words.push_back(fmt::format("--bwlimit={}k", m_settings.bandwidthKiBps));
  order.words.insert(order.words.end(), words.begin(), words.end());
  order.input = input;
  const auto stall = std::chrono::seconds(m_settings.stallSeconds);
  order.limit = 4 * stall + std::chrono::seconds(bytes / GetLeastRate(m_settings.bandwidthKiBps));
  order.inheritedFd = m_lockFd;
  order.onTick = m_onTick;
  return RunChild(order, m_stop);
}

std::optional<HashType> Remote::GetHashType(std::string& problem) {
  if (m_hashType) return m_hashType;
  const auto result = Run({"backend", "features", m_settings.remote}, "", 0);
  const auto features = Kbase::Json::Parse(result.output);
  if (result.status != 0 || !features.is_object() || !features.contains("Hashes")) {
    problem = result.problem.empty() ? "rclone says nothing of what the far side can" : result.problem;
    return std::nullopt;
  }
  const auto& hashes = features["Hashes"];
  for (const auto type : {HashType::Sha256, HashType::Sha1, HashType::Md5}) {
    m_tellsHashes =
        hashes.is_array() && std::find(hashes.begin(), hashes.end(), std::string(GetName(type))) != hashes.end();
    m_hashType = m_tellsHashes ? type : HashType::Sha256;
    if (m_tellsHashes) break;
  }
  return m_hashType;
}

std::optional<Remote::Texts> Remote::ReadHashes(const std::string& event, const std::vector<UploadFile>& files,
                                                HashType type, bool isReadBack, std::string& problem) {
  std::vector<std::string> words{"hashsum", std::string(GetName(type)), GetPath(event), "--files-from-raw=-"};
  if (isReadBack) words.emplace_back("--download");
  const auto result = Run(words, JoinNames(files), isReadBack ? SumBytes(files) : 0);
  if (result.status == NoDirectory) return Texts();
  Texts hashes;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t gap = line.find("  ");
    if (gap == std::string::npos) continue;
    const std::string hash = line.substr(0, gap);
    if (IsHash(type, hash)) hashes[line.substr(gap + 2)] = hash;
  }
  // What was told of some files holds whatever became of the others; nothing at all, with an error, may be no network.
  if (result.status == 0 || !hashes.empty()) return hashes;
  problem = result.problem;
  return std::nullopt;
}

std::optional<std::map<std::string, std::uint64_t>> Remote::ReadSizes(const std::string& event, std::string& problem) {
  const auto result = Run({"lsjson", "--files-only", "--no-modtime", "--no-mimetype", GetPath(event)}, "", 0);
  std::map<std::string, std::uint64_t> sizes;
  if (result.status == NoDirectory) return sizes;
  const auto list = Kbase::Json::Parse(result.output);
  if (result.status != 0 || !list.is_array()) {
    problem = result.problem.empty() ? "rclone's list of the far side is none" : result.problem;
    return std::nullopt;
  }
  for (const auto& file : list) {
    const bool isFile = file.is_object() && file.contains("Name") && file["Name"].is_string() &&
                        file.contains("Size") && file["Size"].is_number_integer() && file["Size"] >= 0;
    if (isFile) sizes[file["Name"].get<std::string>()] = file["Size"].get<std::uint64_t>();
  }
  return sizes;
}

std::optional<std::vector<UploadFile>> Remote::Compare(const Manifest& manifest, const std::vector<UploadFile>& files,
                                                       Names& right, std::string& problem) {
  std::optional<Texts> hashes = Texts();
  if (m_tellsHashes) hashes = ReadHashes(manifest.event, files, manifest.farType, false, problem);
  std::vector<UploadFile> untold;
  if (!hashes) return std::nullopt;
  for (const auto& file : files) {
    const auto found = hashes->find(file.name);
    if (found == hashes->end()) untold.push_back(file);
    if (found != hashes->end() && found->second == file.far) right.insert(file.name);
  }
  if (untold.empty()) return untold;
  const auto sizes = ReadSizes(manifest.event, problem);
  if (!sizes) return std::nullopt;
  std::erase_if(untold, [&sizes](const UploadFile& file) {
    const auto found = sizes->find(file.name);
    return found == sizes->end() || found->second != file.bytes;
  });
  return untold;
}

std::optional<Names> Remote::FindLikely(const Manifest& manifest, const std::vector<UploadFile>& files,
                                        std::string& problem) {
  Names likely;
  const auto untold = Compare(manifest, files, likely, problem);
  if (!untold) return std::nullopt;
  for (const auto& file : *untold) likely.insert(file.name);
  return likely;
}

std::optional<Names> Remote::FindRight(const Manifest& manifest, const std::vector<UploadFile>& files,
                                       std::string& problem) {
  Names right;
  const auto untold = Compare(manifest, files, right, problem);
  if (!untold) return std::nullopt;
  if (untold->empty()) return right;
  if (SumBytes(*untold) > static_cast<std::uint64_t>(m_settings.readBackMiB) << 20) {
    problem = fmt::format("the far side tells no hashes, and {} bytes are more than readBackMiB lets be read back",
                          SumBytes(*untold));
    return std::nullopt;
  }
  const auto hashes = ReadHashes(manifest.event, *untold, HashType::Sha256, true, problem);
  if (!hashes) return std::nullopt;
  for (const auto& file : *untold) {
    const auto found = hashes->find(file.name);
    if (found != hashes->end() && found->second == file.sha256) right.insert(file.name);
  }
  return right;
}

bool Remote::Send(const std::string& eventDir, const std::string& event, const std::vector<UploadFile>& files,
                  std::string& problem) {
  if (files.empty()) return true;
  // Which of them are to go is decided by their content; sizes and times would only be in the way.
  const auto result = Run({"copy", eventDir, GetPath(event), "--files-from-raw=-", "--no-traverse", "--ignore-times",
                           "--transfers=2", "--no-update-modtime"},
                          JoinNames(files), SumBytes(files));
  problem = result.problem;
  return result.status == 0;
}

bool Remote::Put(const std::string& event, const std::string& name, const std::string& text, std::string& problem) {
  const auto result = Run({"rcat", GetPath(event) + "/" + name}, text, text.size());
  problem = result.problem;
  return result.status == 0;
}

bool Remote::Remove(const std::string& event, const std::string& name, std::string& problem) {
  const auto result = Run({"delete", GetPath(event), "--files-from-raw=-"}, name + "\n", 0);
  problem = result.problem;
  return result.status == 0 || result.status == NoDirectory;
}

}  // namespace Tavi::Upload
