// What most tests need: a temporary directory, the log, waiting for a condition, looking at the own process.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "Kbase/Klog/Logger.h"

namespace Tavi::Testing {

/// How many times longer than elsewhere something may take: more than 1 where the processor is emulated.
inline int Patience() {
  const char* text = std::getenv("TAVI_TEST_PATIENCE");
  return text != nullptr ? std::max(1, std::atoi(text)) : 1;
}

/// Waits up to a minute: who passes never waits so long, whatever else the machine does.
inline bool WaitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + Patience() * std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline std::string ReadFile(const std::filesystem::path& path) {
  std::string text;
  if (FILE* file = std::fopen(path.c_str(), "rb")) {
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) text.push_back(static_cast<char>(c));
    std::fclose(file);
  }
  return text;
}

/// Threads of this process that bear a name.
inline int CountThreads(const std::string& name) {
  int count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    count += ReadFile(task.path() / "comm") == name + "\n" ? 1 : 0;
  }
  return count;
}

/// Takes what other threads write to std::cout while it lives.
class CapturedOutput : private std::streambuf {
 public:
  CapturedOutput() : m_before(std::cout.rdbuf(this)) {}
  ~CapturedOutput() override { std::cout.rdbuf(m_before); }

  std::string GetText() {
    const std::lock_guard lock(m_mutex);
    return m_text;
  }
  bool WaitFor(const std::string& text) {
    return WaitUntil([&] { return GetText().find(text) != std::string::npos; });
  }

 private:
  int overflow(int c) override {
    const std::lock_guard lock(m_mutex);
    m_text.push_back(static_cast<char>(c));
    return c;
  }
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    const std::lock_guard lock(m_mutex);
    m_text.append(text, static_cast<std::size_t>(size));
    return size;
  }

  std::mutex m_mutex;
  std::string m_text;
  std::streambuf* const m_before;
};

/// A directory that is gone with the test, and the log lines written meanwhile.
class TempDirTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tavi-test-XXXXXX";
    m_dir = std::string(mkdtemp(pattern)) + "/";
    Kbase::Klog::Logger::GetInstance().SetConsole(false);
    Kbase::Klog::Logger::GetInstance().SetObserver([this](Kbase::Klog::Level, std::string_view line) {
      const std::lock_guard lock(m_logMutex);
      m_log.emplace_back(line);
    });
  }
  void TearDown() override {
    Kbase::Klog::Logger::GetInstance().SetObserver({});
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
  }

  /// All lines so far, as they were logged.
  std::string GetLog() {
    const std::lock_guard lock(m_logMutex);
    std::string all;
    for (const auto& line : m_log) all += line + "\n";
    return all;
  }
  void ClearLog() {
    const std::lock_guard lock(m_logMutex);
    m_log.clear();
  }
  /// Lines with `text` in them.
  int CountLogged(const std::string& text) {
    const std::lock_guard lock(m_logMutex);
    int count = 0;
    for (const auto& line : m_log) count += line.find(text) != std::string::npos ? 1 : 0;
    return count;
  }
  /// Descriptors that the process has open.
  static long CountDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  }

  std::string m_dir;

 private:
  std::mutex m_logMutex;
  std::vector<std::string> m_log;
};

}  // namespace Tavi::Testing
