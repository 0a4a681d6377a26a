// Sentences as a receiver sends them, made from what lies between "$" and "*".
#pragma once

#include <cstdio>
#include <string>

inline std::string MakeSentence(const std::string& body) {
  unsigned char sum = 0;
  for (const char c : body) sum = static_cast<unsigned char>(sum ^ static_cast<unsigned char>(c));
  char checksum[8];
  std::snprintf(checksum, sizeof(checksum), "*%02X\r\n", sum);
  return "$" + body + checksum;
}
