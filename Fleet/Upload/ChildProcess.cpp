// One run of another program, within bounds.
#include "Fleet/Upload/ChildProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <regex>

namespace Tavi::Upload {
namespace {

using Ksystem::FileUtils::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr std::size_t MaxOutputBytes = std::size_t{1} << 20;
/// Of the standard error only the end is of interest.
constexpr std::size_t KeptErrorBytes = std::size_t{16} << 10;
constexpr std::size_t MaxReasonBytes = 300;
constexpr std::chrono::seconds TickTime{5};
/// By which a shell, too, says that there is no such program (POSIX, 2.8.2).
constexpr int NotStarted = 127;

struct Pipes {
  UniqueFd input, outputRead, outputWrite, errorRead, errorWrite;
};

bool MakePipe(UniqueFd& read, UniqueFd& write) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  read = UniqueFd(ends[0]);
  write = UniqueFd(ends[1]);
  return true;
}

bool OpenPipes(const std::string& input, Pipes& pipes) {
  pipes.input = UniqueFd(::memfd_create("input", MFD_CLOEXEC));
  return pipes.input.IsValid() && Ksystem::FileUtils::WriteAll(pipes.input.Get(), input.data(), input.size()) &&
         ::lseek(pipes.input.Get(), 0, SEEK_SET) == 0 && MakePipe(pipes.outputRead, pipes.outputWrite) &&
         MakePipe(pipes.errorRead, pipes.errorWrite);
}

/// In the child: calls the kernel and nothing else, for other threads of the parent may have held any lock.
[[noreturn]] void Become(char* const* words, const Pipes& pipes, int inheritedFd, pid_t parent) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(NotStarted);  // it died in between
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  if (inheritedFd >= 0) ::fcntl(inheritedFd, F_SETFD, 0);
  const bool isBound = ::dup2(pipes.input.Get(), STDIN_FILENO) >= 0 &&
                       ::dup2(pipes.outputWrite.Get(), STDOUT_FILENO) >= 0 &&
                       ::dup2(pipes.errorWrite.Get(), STDERR_FILENO) >= 0;
  if (isBound) ::execvp(words[0], words);
  ::_exit(NotStarted);
}

pid_t Start(const ChildOrder& order, const Pipes& pipes) {
  std::vector<std::string> copy = order.words;
  std::vector<char*> words;
  for (auto& word : copy) words.push_back(word.data());
  words.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) Become(words.data(), pipes, order.inheritedFd, parent);
  // On both sides, so that the group is there whoever comes first.
  if (child > 0) ::setpgid(child, child);
  return child;
}

/// Takes what there is to read; false at the end.
bool Take(int fd, std::string& text) {
  std::array<char, 16384> block{};
  const ssize_t got = ::read(fd, block.data(), block.size());
  if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
  return got > 0 || (got < 0 && errno == EINTR);
}

/// Reads both outputs to their end; else why that was not waited for.
std::string Follow(const ChildOrder& order, const StopSignal& stop, const Pipes& pipes, std::string& output,
                   std::string& errors) {
  const auto end = Clock::now() + order.limit;
  auto nextTick = Clock::now() + TickTime;
  std::array<pollfd, 3> waits{
      {{pipes.outputRead.Get(), POLLIN, 0}, {pipes.errorRead.Get(), POLLIN, 0}, {stop.GetFd(), POLLIN, 0}}};
  while (waits[0].fd >= 0 || waits[1].fd >= 0) {
    const auto now = Clock::now();
    if (now >= end) return fmt::format("it took longer than {} s", order.limit.count() / 1000);
    if (now >= nextTick && order.onTick) order.onTick();
    if (now >= nextTick) nextTick = now + TickTime;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::min(end, nextTick) - now);
    if (::poll(waits.data(), waits.size(), static_cast<int>(left.count())) < 0 && errno != EINTR) return "it was lost";
    if (waits[2].revents != 0) return "it was told to end";
    if (waits[0].revents != 0 && !Take(waits[0].fd, output)) waits[0].fd = -1;
    if (waits[1].revents != 0 && !Take(waits[1].fd, errors)) waits[1].fd = -1;
    if (output.size() > MaxOutputBytes) return "it says too much";
    if (errors.size() > 2 * KeptErrorBytes) errors.erase(0, errors.size() - KeptErrorBytes);
  }
  return {};
}

/// Both outputs at their end, or the group killed: it is gone in no time, but for a disk or mount that hangs.
int Reap(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  return status;
}

}  // namespace

std::string GetLastLine(const std::string& text) {
  std::string line;
  for (std::size_t from = 0; from < text.size();) {
    const std::size_t to = std::min(text.find('\n', from), text.size());
    const std::string next = text.substr(from, to - from);
    if (next.find_first_not_of(" \t\r") != std::string::npos) line = next;
    from = to + 1;
  }
  static const std::regex front(R"(^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d (?:[A-Z]+\s*: )?)");
  line = std::regex_replace(line.substr(0, 4096), front, "");
  static const std::regex count(R"(^Failed to .* with \d+ errors: last error was: )");
  line = std::regex_replace(line, count, "");
  for (char& c : line) c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
  return line.substr(0, MaxReasonBytes);
}

ChildResult RunChild(const ChildOrder& order, const StopSignal& stop) {
  ChildResult result;
  Pipes pipes;
  const pid_t child = OpenPipes(order.input, pipes) ? Start(order, pipes) : -1;
  if (child < 0) {
    result.problem = fmt::format("{} cannot be started: {}", order.words.front(), std::strerror(errno));
    return result;
  }
  pipes.outputWrite.Close();
  pipes.errorWrite.Close();
  std::string errors;
  result.problem = Follow(order, stop, pipes, result.output, errors);
  ::kill(-child, SIGKILL);  // who has closed both outputs has nothing more to say
  if (!result.problem.empty()) {
    Reap(child);
    return result;
  }
  const int status = Reap(child);
  result.hasEnded = WIFEXITED(status);
  result.status = result.hasEnded ? WEXITSTATUS(status) : -1;
  result.problem = GetLastLine(errors);
  if (result.status == NotStarted && result.problem.empty()) result.problem = "it cannot be started; is it installed?";
  if (result.status != 0 && result.problem.empty()) result.problem = "it ended without a word";
  return result;
}

}  // namespace Tavi::Upload
