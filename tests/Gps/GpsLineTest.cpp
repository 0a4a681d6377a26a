// Sentences: which are taken, what their fields are, where those lie.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "Support/Nmea.h"
#include "Tavi/Gps/GPSLine.h"

using Tavi::Gps::GPSLine;

namespace {

/// Allocations of this thread.
thread_local int t_allocations = 0;

}  // namespace

void* operator new(std::size_t size) {
  ++t_allocations;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

TEST(GpsLine, TakesWhatTheChecksumCoversAndNamesItsType) {
  const std::tuple<std::string, int, int, std::string, std::string> cases[] = {
      {MakeSentence("GPRMC,1,,A,"), 1, 1, "$GPRMC,1,,A,*3B", ""},
      {"noise$GNRMC,kx*6a\r\nmore\r", 1, 2, "noise$GNRMC,kx*6amore", ""},
      {MakeSentence("GNGGA,,,,last"), 1, 4, "$GNGGA,,,,last*42", "last"},
      {MakeSentence("GPGSV,3"), 1, 7, "$GPGSV,3*4A", ""},
      {MakeSentence("GPRMCX,,,,x"), 1, 0, "$GPRMCX,,,,x*6B", "x"},
      {"$GPGGA*56$GPRMC,1,,A,*3B", 1, 3, "$GPGGA*56$GPRMC,1,,A,*3B", ""},  // spliced: only the first is checked
      {"$aa*zz", 1, 0, "$aa*zz", ""},                                      // sum 0, digits that cannot be read
      {"*00$GPGSV,,,,x", 1, 7, "*00$GPGSV,,,,x", "x"},                     // nothing between "$" and "*"
      {"$GPRMC,1,,A,*3A", 0, 0, "", ""},
      {"$GPRMC,1,,A,", 0, 0, "", ""},
  };
  for (const auto& [text, isValid, type, expected, last] : cases) {
    const GPSLine line(std::string(text).data());
    EXPECT_EQ(std::make_tuple(text, line.m_isValid, line.GetLineType(), line.GetLineString(), last),
              std::make_tuple(text, isValid, type, expected, line.GetLineElementByNumber(4)));
  }
}

TEST(GpsLine, KeepsThirtyFieldsWithoutAnAllocationEachAndForgetsThoseOfTheSentenceBefore) {
  GPSLine line(MakeSentence("GPGSV" + std::string(28, ',') + ",12118.8685453,30,31" + std::string(60, ',')).data());
  EXPECT_EQ(line.GetLineElementByNumber(29), "12118.8685453");
  for (const int outside : {30, 1000, -1}) EXPECT_EQ(line.GetLineElementByNumber(outside), "");
  GPSLine copy(line);
  const auto offset = copy.ViewElement(29).data() - reinterpret_cast<const char*>(&copy);
  EXPECT_TRUE(offset > 0 && offset < static_cast<long>(sizeof(copy)));
  std::string sentence = MakeSentence("GPGSV" + std::string(28, ',') + "12118.8685453,30,31");
  const int before = t_allocations;
  GPSLine many(sentence.data());
  const std::size_t length = many.ViewElement(28).size() + many.ViewElement(29).size() + many.ViewElement(30).size();
  EXPECT_LE(t_allocations - before, 1) << "not one a field";
  EXPECT_EQ(length, std::string("12118.868545330").size());
  line = GPSLine(MakeSentence("GPGSA,1").data());
  EXPECT_EQ(copy.SplitLine(MakeSentence("GPGSA,1").data()), 1);
  for (const auto* now : {&line, &copy})
    EXPECT_EQ(now->GetLineElementByNumber(1) + now->GetLineElementByNumber(29), "1");
}
