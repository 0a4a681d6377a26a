// Console probes for manual debugging.
#include "Tavi/Testing/ConsoleProbes.h"

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>

#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/Accel/AccDataPak.h"
#include "Tavi/Accel/AccPipelineCbElement.h"
#include "Tavi/Accel/AccPipelineElement.h"
#include "Tavi/Audio/AudioPipelineCbElement.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/Gps/GPSDataPackage.h"
#include "Tavi/Gps/GpsData.h"
#include "Tavi/Gps/GpsPipelineCbElement.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/Video/VideoPipelineCbElement.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::Testing {
namespace {

/// Writes one entry's bytes; false when it has none or the file takes no more.
bool WriteEntry(FILE* file, const Kbase::Pipeline::IPipelineElement::Entry& entry) {
  const GstUtil::BufferMap map(dynamic_cast<const GstUtil::GstPipelineCbElement*>(entry.get()));
  return map.IsMapped() && Ksystem::FileUtils::Kfile::Write(map.GetBytes().data(), map.GetBytes().size(), file);
}

template <class CbElement>
void PrintFrameId(Kbase::Pipeline::IPipelineElement* element, const char* source) {
  const auto entry = element != nullptr ? element->RetrieveCurrent() : nullptr;
  const auto* frame = dynamic_cast<const CbElement*>(entry.get());
  if (frame == nullptr) {
    std::cout << "NULL ELEMENT " << source << "...\n" << std::flush;
  } else {
    std::cout << source << " Frame ID: " << frame->frameId << "\n" << std::flush;
  }
}

/// Calls `print` with the newest entry and its record, or says what is missing of the two.
template <class CbElement, class Record, class Print>
void PrintRecord(Kbase::Pipeline::IPipelineElement* element, const char* source, const Print& print) {
  const auto entry = element != nullptr ? element->RetrieveCurrent() : nullptr;
  const auto* sample = dynamic_cast<const CbElement*>(entry.get());
  const GstUtil::BufferMap map(sample);
  const auto* record = map.template GetRecord<Record>();
  if (sample == nullptr) {
    std::cout << "NULL ELEMENT " << source << "...\n";
  } else if (record == nullptr) {
    std::cout << "NULL MAP INFO " << source << "...\n";
  } else {
    print(*sample, *record);
  }
  std::cout << std::flush;
}

void PrintFix(const Gps::GpsPipelineCbElement& entry, const Gps::GpsData& fix) {
  constexpr const char* Line = "-----------------------------------------------------\n";
  const auto utc = Gps::GPSDataPackage::GetUtc(fix).value_or(fix.record_u_time);
  std::cout << Line << "GPS Frame ID: " << entry.frameId << "\nisValidPackage:" << int{fix.isValidPackage}
            << "\nrecord_u_time:" << utc << "\nspeed:" << fix.speed << "\ncourse:" << fix.course
            << "\nlatitude:" << fix.latitude << "\nlongitude:" << fix.longitude
            << "\nnoOfSatellites:" << fix.noOfSatellites << "\naltitude:" << fix.altitude << "\nHDOP:" << fix.HDOP
            << "\nPDOP:" << fix.PDOP << "\nVDOP:" << fix.VDOP << "\nm_date:" << fix.m_date << "\nm_time:" << fix.m_time
            << "\nstd_lat:" << fix.std_lat << "\nstd_latCPoint:" << fix.std_latCPoint << "\nstd_long:" << fix.std_long
            << "\nstd_longCPoint:" << fix.std_longCPoint << "\ngprmc_line:" << fix.gprmc_line << "\n"
            << Line;
}

void PrintLastSample(const Accel::AccPipelineCbElement& entry, const Accel::AccDataPak& block) {
  constexpr std::size_t LastSample = Accel::AccDataPak::BlockBytes - 3;
  const auto axis = [&block](std::size_t i) { return ConvertAcc(block.native[LastSample + i], block.scale); };
  std::cout << "Scale: " << int{block.scale} << " x: " << axis(0) << " y: " << axis(1) << " z: " << axis(2)
            << "\nACC Frame ID: " << entry.frameId << "\n";
}

void WriteEntries(Kbase::Pipeline::IPipelineElement* element, const std::string& path, int first, int last) {
  if (element == nullptr) return;
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wbe"), std::fclose);
  if (!file) {
    std::perror(path.c_str());
    return;
  }
  for (int pos = first; pos <= last; ++pos) {
    WriteEntry(file.get(), element->GetElementAt(element->SeekRelative(pos, 0)));
  }
}

}  // namespace

void TestVideo(Video::VideoPipelineElement* element) {
  PrintFrameId<Video::VideoPipelineCbElement>(element, "Video");
}

void TestAudio(Audio::AudioPipelineElement* element) {
  PrintFrameId<Audio::AudioPipelineCbElement>(element, "Audio");
}

void TestGps(Gps::GpsPipelineElement* element) {
  PrintRecord<Gps::GpsPipelineCbElement, Gps::GpsData>(element, "GPS", PrintFix);
}

void TestAcc(Accel::AccPipelineElement* element) {
  PrintRecord<Accel::AccPipelineCbElement, Accel::AccDataPak>(element, "ACC", PrintLastSample);
}

void WriteVideo(Video::VideoPipelineElement* element, const std::string& path, int first, int last) {
  WriteEntries(element, path, first, last);
}

void WriteAudio(Audio::AudioPipelineElement* element, const std::string& path, int first, int last) {
  WriteEntries(element, path, first, last);
}

double ConvertAcc(unsigned char value, unsigned char scale) {
  const int unitsPerG = scale != 0 ? 128 / scale : 0;
  return unitsPerG != 0 ? static_cast<double>(static_cast<std::int8_t>(value)) / unitsPerG : 0.0;
}

}  // namespace Tavi::Testing
