// The recorder as a child process.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Support/Fixtures.h"

namespace Tavi::Testing {

class ProgramTest : public TempDirTest {
 protected:
  /// Starts the recorder with its standard streams in files of the test's directory.
  pid_t Spawn(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), RECORDER_PROGRAM);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    // Here and not by the child, whose caller may look for a line that the one before has written.
    for (const char* name : {"out", "err"}) std::ofstream(m_dir + name);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (m_dir + "out").c_str(), O_WRONLY | O_CREAT, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (m_dir + "err").c_str(), O_WRONLY | O_CREAT, 0644);
    pid_t child = 0;
    EXPECT_EQ(posix_spawn(&child, RECORDER_PROGRAM, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return child;
  }
  static int Wait(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  [[nodiscard]] std::string Out() const { return ReadFile(m_dir + "out"); }
  [[nodiscard]] std::string Err() const { return ReadFile(m_dir + "err"); }
};

/// The recorder as a service, which ends with the test.
class ServiceProgramTest : public ProgramTest {
 protected:
  void TearDown() override {
    if (m_child > 0) kill(m_child, SIGKILL), Wait(m_child);
    ProgramTest::TearDown();
  }
  /// The recorder's reply.
  nlohmann::json Ctl(const std::string& words) const {
    const std::string line = std::string(CTL_PROGRAM) + " --json --control " + m_dir + "ctl/socket " + words + " 2>&1";
    std::string reply;
    FILE* pipe = popen(line.c_str(), "r");
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) reply += static_cast<char>(c);
    pclose(pipe);
    // A refusal has its sentence behind the reply's line.
    if (reply.starts_with('{')) reply = reply.substr(0, reply.find('\n'));
    return nlohmann::json::accept(reply) ? nlohmann::json::parse(reply) : nlohmann::json{{"error", reply}};
  }

  pid_t m_child = 0;
};

}  // namespace Tavi::Testing
