// The recorder as a child process.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, (m_dir + "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, (m_dir + "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
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

}  // namespace Tavi::Testing
