// Reading a receiver's sentences into fix records, against a tokenizer that only checks and splits them.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Tavi/Gps/GPSDataPackage.h"

namespace {

using Tavi::Gps::GPSDataPackage;
using Tavi::Gps::GPSLine;

/// Where the receivers' logs lie: beside the checkout, of which the working directory is some folder.
std::filesystem::path FindLogs() {
  if (const char* given = std::getenv("TAVI_NMEA_LOGS")) return given;
  for (auto dir = std::filesystem::current_path(); dir != dir.root_path(); dir = dir.parent_path()) {
    if (auto logs = dir.parent_path() / "shared/data/nmea"; std::filesystem::is_directory(logs)) return logs;
  }
  return {};
}

/// Every sentence of every log, damaged ones included.
std::vector<std::string> ReadSentences() {
  std::vector<std::string> sentences;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(FindLogs(), missing)) {
    if (entry.path().extension() != ".log") continue;
    std::ifstream log(entry.path());
    for (std::string line; std::getline(log, line);) {
      if (line.starts_with('$')) sentences.push_back(line);
    }
  }
  return sentences;
}

void ReportPerSentence(benchmark::State& state, std::size_t sentences) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(sentences));
  state.counters["per_sentence"] = benchmark::Counter(
      static_cast<double>(sentences), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

/// One package an epoch, which an RMC sentence starts.
void ReadEpochs(std::vector<std::string>& sentences) {
  std::unique_ptr<GPSDataPackage> package;
  for (auto& sentence : sentences) {
    GPSLine line(sentence.data());
    if (package == nullptr || line.GetLineType() == Tavi::Gps::GPS_LINE_GPRMC ||
        line.GetLineType() == Tavi::Gps::GPS_LINE_GNRMC) {
      if (package != nullptr) package->PostProcess();
      package = std::make_unique<GPSDataPackage>();
    }
    package->AddLine(line);
    benchmark::DoNotOptimize(package->GetData());
  }
}

/// With a zone in the environment, as the unit has it, or without: mktime then looks at the system's zone file each
/// time.
void SetZone(bool isUtc) {
  isUtc ? setenv("TZ", "UTC", 1) : unsetenv("TZ");
  tzset();
}

void NmeaTavi(benchmark::State& state) {
  auto sentences = ReadSentences();
  if (sentences.empty()) return state.SkipWithError("no receiver logs: set TAVI_NMEA_LOGS");
  SetZone(state.range(0) != 0);
  for (auto _ : state) ReadEpochs(sentences);
  SetZone(false);
  ReportPerSentence(state, sentences.size());
}

/// Fields of a sentence that are not empty, 0 when its checksum is wrong.
int Tokenize(const std::string& sentence, std::array<char, 512>& scratch, std::array<char*, 64>& fields) {
  if (sentence.size() >= scratch.size()) return 0;
  std::memcpy(scratch.data(), sentence.c_str(), sentence.size() + 1);
  char* const start = std::strchr(scratch.data(), '$');
  char* const star = std::strchr(scratch.data(), '*');
  if (start == nullptr || star == nullptr) return 0;
  unsigned int sum = 0;
  for (const char* c = start + 1; c < star; ++c) sum ^= static_cast<unsigned char>(*c);
  if (std::strtoul(star + 1, nullptr, 16) != sum) return 0;
  *star = '\0';
  std::size_t count = 0;
  char* rest = nullptr;
  for (char* field = strtok_r(start + 1, ",", &rest); field != nullptr && count < fields.size();
       field = strtok_r(nullptr, ",", &rest)) {
    fields[count++] = field;
  }
  return static_cast<int>(count);
}

void NmeaTokenizer(benchmark::State& state) {
  const auto sentences = ReadSentences();
  if (sentences.empty()) return state.SkipWithError("no receiver logs: set TAVI_NMEA_LOGS");
  std::array<char, 512> scratch;
  std::array<char*, 64> fields;
  for (auto _ : state) {
    for (const auto& sentence : sentences) {
      benchmark::DoNotOptimize(Tokenize(sentence, scratch, fields));
      benchmark::ClobberMemory();
    }
  }
  ReportPerSentence(state, sentences.size());
}

BENCHMARK(NmeaTavi)->ArgName("utc")->Arg(0)->Arg(1)->MinTime(1.0);
BENCHMARK(NmeaTokenizer)->MinTime(1.0);

}  // namespace
