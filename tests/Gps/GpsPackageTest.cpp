// Fix records: what sentences and receivers' logs come to, the trip, and who owns the record.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "Kdevice/GpsDevice/EpochSplitter.h"
#include "Support/Nmea.h"
#include "Tavi/Gps/GPSDataPackage.h"

namespace {

using namespace Tavi::Gps;

/// In UTC as the unit is, with a trip of its own.
class GpsPackage : public testing::Test {
 protected:
  GpsPackage() : m_zone(std::getenv("TZ") == nullptr ? "" : std::getenv("TZ")) { SetZone("UTC"); }
  ~GpsPackage() override { SetZone(m_zone); }
  static void SetZone(const std::string& zone) {
    GPSDataPackage::gpsRouteState = {};
    zone.empty() ? unsetenv("TZ") : setenv("TZ", zone.c_str(), 1);
    tzset();
  }
  const std::string m_zone;
};

/// The record of an epoch of two sentences, which releasing it must not change any more.
GpsData Read(const std::string& first, const std::string& second) {
  auto package = std::make_unique<GPSDataPackage>();
  for (const auto& body : {first, second}) {
    GPSLine line(MakeSentence(body).data());
    package->AddLine(line);
  }
  package->PostProcess();
  const std::unique_ptr<GpsData> data = package->ReleaseData();
  package->Load(GPSLine(MakeSentence("GPRMC,,V").data()));
  package->PostProcess();
  package.reset();
  return *data;
}

TEST_F(GpsPackage, TwoSentencesInEitherOrderFillTheRecordAsFarAsTheyCanBeRead) {
  constexpr std::int32_t Start = 1577836800;
  const std::string good = "GPRMC,123519.000,A,4807.038,N,01131.000,W,022.4,084.4,010120,,,A";
  const std::string gga = "GPGGA,,,,,,1,08,10.0,-5.4,M";
  const std::tuple<std::string, std::string, int, std::string, std::int32_t, double, double, double, int> cases[] = {
      {gga, good, 1, "123519.000", Start + 45319, 22.4, 48117300, -11516667, 8},
      {"GNGGA,,,,,,2,8,10.1", good, 0, "123519.000", Start + 45319, 22.4, 48117300, -11516667, 8},
      {"GPGGA,,,,,,1,8x,inf", good, 0, "123519.000", Start + 45319, 22.4, 48117300, -11516667, 0},
      {"GPGGA,,,,,,0,08,1.0", good, 0, "123519.000", Start + 45319, 22.4, 48117300, -11516667, 0},
      {gga, "GNRMC,000000,A,07.038,S,1200.0,E,,,010120", 1, "000000", Start, 0, -117300, 12000000, 8},
      {gga, "GPRMC,000000.00,A,,,,,,,010120", 1, "000000.00", Start, 0, 0, 0, 8},
      {gga, "GPRMC,000000,V,4807.0,N,01131.0,W,5,,010120", 0, "000000", Start, 0, 0, 0, 8},
      {gga, "GPRMC,,A,4807.038,N,01131.000,W,5,,010120", 0, "00000000000", 0, 0, 0, 0, 8},
      {gga, "GPRMC,000000.00,A,4807.038,N,01131.000,W,5", 0, "00000000000", 0, 0, 0, 0, 8},
      {gga, "GPRMC,00000,A,4807.038,N,01131.000,W,5,,010120", 0, "00000", -1, 0, 0, 0, 8},
      {gga, "GPRMC,000000,A,4807.038,N,01131,W,5,,010120", 0, "000000", Start, 5, 48117300, 0, 8},
      {gga, "GPRMC,000000,A,1.038,N,01131.0,W,5,,010120", 0, "000000", Start, 5, 0, 0, 8},
      {gga, "GPRMC,000000,A,4807.0,N,01131.0,W,5e400,,010120", 0, "000000", Start, 0, 0, 0, 8},
      {gga, "GPRMC,000000,A," + std::string(5000, '9') + ".0,N,,,5,,010120", 0, "000000", Start, 5, 0, 0, 8},
  };
  for (const auto& [other, rmc, isValid, time, seconds, speed, latitude, longitude, satellites] : cases) {
    for (const GpsData& data : {Read(other, rmc), Read(rmc, other)}) {
      EXPECT_EQ(std::make_tuple(data.isValidPackage, std::string(data.m_time), data.record_u_time, data.speed,
                                std::round(data.latitude * 1e6), std::round(data.longitude * 1e6), data.noOfSatellites),
                std::make_tuple(isValid, time, seconds, speed, latitude, longitude, satellites))
          << rmc;
      EXPECT_EQ(data.gprmc_line, MakeSentence(rmc).substr(0, std::min<std::size_t>(rmc.size() + 4, 99)));
    }
  }
}

TEST_F(GpsPackage, TimeFollowsTheZoneOfTheProcessWithoutDaylightSaving) {
  const GPSDataPackage package;
  for (const char* wrong : {"", "1", "12345", "1a0720", "-10720", "01 720", "01072000000"}) {
    EXPECT_EQ(package.ConvertDateTime(wrong, "000000.000"), -1) << wrong;
    EXPECT_EQ(package.ConvertDateTime("010720", wrong), -1) << wrong;
  }
  EXPECT_EQ(package.ConvertDateTime("010799", "000060.999"), 4086547260);
  SetZone("EST5EDT");
  EXPECT_EQ(package.ConvertDateTime("010720", "000000"), 1593561600 + 5 * 3600);
}

// Catches a fix that is shown hours off on a desktop, which is not in UTC as the unit is.
TEST_F(GpsPackage, WhatIsShownOfAFixIsUtcWhateverTheZone) {
  for (const char* zone : {"UTC", "EST5EDT", "Asia/Kolkata", ""}) {
    SetZone(zone);
    const GpsData data = Read("GPRMC,123519.000,A,4807.038,N,01131.000,E,5,,010720", "GPGGA,,,,,,1,4,1");
    EXPECT_EQ(GPSDataPackage::GetUtc(data), 1593606919) << zone;
    EXPECT_EQ(GPSDataPackage::GetUtc(Read("GPRMC,,V", "GPGGA,,,,,,1,4,1")), std::nullopt);
  }
}

TEST_F(GpsPackage, TheTripBelievesNoSpikeAndStartsAgainAfterAFixIsLost) {
  // Speed, dilution; then the distance in halves of a knot times a second, stops, moves, fast, slow, highest speed.
  const std::tuple<std::string, std::string, double, int, int, int, int, double> epochs[] = {
      {"0.5", "1", 0, 1, 0, 0, 0, 0},        {"20", "1", 20.5, 1, 1, 0, 0, 20},  {"76", "1", 116.5, 1, 2, 1, 0, 76},
      {"130.5", "1", 192.5, 2, 2, 1, 0, 76}, {"130", "1", 453, 2, 3, 2, 0, 130}, {"10", "11", 453, 3, 3, 2, 0, 130},
      {"19", "1", 482, 3, 4, 2, 1, 130},     {"75", "1", 576, 3, 5, 2, 1, 130},
  };
  for (const auto& [speed, dilution, distance, stops, moves, fast, slow, highest] : epochs) {
    const GpsData data = Read("GPRMC,000000,A,,,,," + speed + ",,010120", "GPGGA,,,,,,1,4," + dilution);
    EXPECT_NEAR(data.distance, distance * 0.514444444 / 2, 1e-9) << speed;
    EXPECT_EQ(std::tie(data.stopCount, data.moveCount, data.highSpeedCount, data.lowSpeedCount, data.maxSpeed),
              std::tie(stops, moves, fast, slow, highest))
        << speed;
  }
}

// Catches a receiver that sends GGA first and gets the dilution and the satellites of the epoch behind.
TEST_F(GpsPackage, EachEpochHasItsOwnDilutionWhicheverSentenceComesFirst) {
  for (const bool ggaFirst : {true, false}) {
    std::string text;
    for (int second = 0; second < 6; ++second) {
      const std::string time = "12000" + std::to_string(second) + ".00";
      // Every other epoch is too diluted for a fix.
      const std::string gga = MakeSentence("GPGGA," + time + ",4807.0,N,01131.0,E,1,0" + std::to_string(second) + "," +
                                           (second % 2 == 0 ? "1.5" : "20.0") + ",500.0,M");
      const std::string rmc = MakeSentence("GPRMC," + time + ",A,4807.0,N,01131.0,E,5.0,,010720");
      text += ggaFirst ? gga + rmc : rmc + gga;
    }
    std::vector<std::pair<int, int>> epochs;
    Kdevice::GpsDevice::EpochSplitter splitter([&](const Kdevice::GpsDevice::EpochSplitter::Epoch& epoch) {
      GPSDataPackage package;
      std::istringstream lines(epoch.text);
      for (std::string line; std::getline(lines, line);) {
        GPSLine sentence(line.data());
        package.AddLine(sentence);
      }
      package.PostProcess();
      epochs.emplace_back(package.GetData()->noOfSatellites, package.GetData()->isValidPackage);
    });
    splitter.Feed(text);
    splitter.Flush();
    const std::vector<std::pair<int, int>> expected{{0, 1}, {1, 0}, {2, 1}, {3, 0}, {4, 1}, {5, 0}};
    EXPECT_EQ(epochs, expected) << ggaFirst;
  }
}

/// Grouped by their RMC sentences, as most of these receivers send them first. The figures were counted by a program of
/// its own: sentences in order, others, epochs, fixes; metres; the last fix.
TEST_F(GpsPackage, ReceiversLogsGiveTheFixesThatTheyHold) {
  if (!std::filesystem::is_directory(TAVI_NMEA_LOGS)) GTEST_SKIP() << "no receiver logs in " TAVI_NMEA_LOGS;
  const std::tuple<std::string, std::array<int, 4>, double, double, double, std::string> logs[] = {
      {"gp-320fw-2019-04-07-coldboot", {91, 41, 12, 1}, 0, 48.149988333, 11.584663333, "01135.0798"},
      {"haicom-305N", {325, 0, 74, 62}, 64.702, -27.210671667, 153.05199, "15303.1194"},
      {"rx210", {160, 0, 62, 40}, 1.88, 50.002363, 8.643958667, "00838.63752"},
      {"skytraq-dgps", {1024, 0, 96, 95}, 0, 44.068819853, -121.314458365, "12118.86750"},
      {"telit-he910", {1558, 0, 224, 186}, 1.227, 50.84021, 4.347046667, "00420.8228"},
  };
  for (const auto& [name, expected, distance, latitude, longitude, longitudeText] : logs) {
    GPSDataPackage::gpsRouteState = {};
    std::ifstream file(TAVI_NMEA_LOGS + name + ".log");
    std::array<int, 4> counts{};
    GpsData last{};
    auto package = std::make_unique<GPSDataPackage>();
    for (std::string text; !file.eof();) {
      std::getline(file, text);
      GPSLine line(text.data());
      const bool isRmc = line.GetLineType() == GPS_LINE_GPRMC || line.GetLineType() == GPS_LINE_GNRMC;
      if (isRmc || file.eof()) {
        package->PostProcess();
        counts[3] += package->GetData()->isValidPackage;
        if (package->GetData()->isValidPackage != 0) last = *package->GetData();
        package = std::make_unique<GPSDataPackage>();
      }
      if (text.starts_with('$')) ++counts[line.m_isValid != 0 ? 0 : 1];
      counts[2] += isRmc ? 1 : 0;
      package->AddLine(line);
    }
    EXPECT_EQ(counts, expected) << name;
    EXPECT_NEAR(GPSDataPackage::gpsRouteState.distance, distance, 0.001) << name;
    EXPECT_NEAR(last.latitude, latitude, 1e-8) << name;
    EXPECT_NEAR(last.longitude, longitude, 1e-8) << name;
    EXPECT_EQ(last.std_long, longitudeText);
  }
}

}  // namespace
