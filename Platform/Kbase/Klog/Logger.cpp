// The logger on spdlog's asynchronous back end: a bounded queue and one writing thread.
#include "Kbase/Klog/Logger.h"

#include <spdlog/async.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Kbase/Util/Naming.h"
#include "Kbase/Util/TemperatureMonitor.h"

namespace Kbase::Klog {
namespace {

constexpr std::size_t QueueLines = 8192;

spdlog::level::level_enum ToSpdlog(Level level) {
  switch (level) {
    case Level::Error:
      return spdlog::level::err;
    case Level::Warning:
      return spdlog::level::warn;
    case Level::Info:
      break;
  }
  return spdlog::level::info;
}

std::string BuildLine(Level level, std::string_view tag, std::string_view message) {
  std::string line;
  line.reserve(message.size() + 64);
  line.append("[").append(Util::NewDate()).append("]");
  if (const auto temperature = Util::TemperatureMonitor::Known()) {
    line.append("[").append(std::to_string(*temperature)).append("C]");
  }
  if (level == Level::Error) line.append("[ERROR]");
  if (level == Level::Warning) line.append("[WARNING]");
  line.append("[").append(tag).append("] ").append(message);
  return line;
}

/// The file: turned over by its size, opened anew on request, and after a failure with a later line. What fails is
/// thrown, which the library tells on standard error. Written by the logger's own threads, one at a time.
class LogFile final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /// Throws spdlog::spdlog_ex when the file cannot be opened.
  LogFile(std::string path, FileLimits limits) : m_path(std::move(path)), m_limits(limits), m_file(Open()) {}

  /// From any thread, and without waiting.
  void Reopen() { m_reopen = true; }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    std::exception_ptr trouble;
    const bool isTimeToRetry = !m_file && message.time - m_tried > RetryPeriod;
    if (m_reopen.exchange(false) || isTimeToRetry) trouble = OpenAnew(message.time);
    if (m_file) Write(message);
    if (trouble) std::rethrow_exception(trouble);
  }
  void flush_() override {
    if (m_file) m_file->flush();
  }

 private:
  static constexpr std::chrono::seconds RetryPeriod{1};

  [[nodiscard]] spdlog::sink_ptr Open() const {
    spdlog::sink_ptr file;
    if (m_limits.maxBytes == 0) {
      file = std::make_shared<spdlog::sinks::basic_file_sink_st>(m_path);
    } else {
      file = std::make_shared<spdlog::sinks::rotating_file_sink_st>(m_path, m_limits.maxBytes, m_limits.oldFiles);
    }
    file->set_pattern("%v");
    return file;
  }
  /// The one before stays where there is no new one.
  std::exception_ptr OpenAnew(spdlog::log_clock::time_point now) {
    try {
      m_tried = now;
      m_file = Open();
      return nullptr;
    } catch (const spdlog::spdlog_ex&) {
      return std::current_exception();
    }
  }
  /// A file that could not be turned over is written to all the same.
  void Write(const spdlog::details::log_msg& message) {
    try {
      m_file->log(message);
    } catch (const spdlog::spdlog_ex&) {
      m_file.reset();
      if (!OpenAnew(message.time)) m_file->log(message);
      throw;
    }
  }

  const std::string m_path;
  const FileLimits m_limits;
  std::atomic<bool> m_reopen{false};
  /// Null while it cannot be opened.
  spdlog::sink_ptr m_file;
  spdlog::log_clock::time_point m_tried{};
};

/// One generation of queue, thread and sinks; destroying it writes what is queued and joins the thread.
struct Backend {
  explicit Backend(std::vector<spdlog::sink_ptr> sinks)
      : pool(std::make_shared<spdlog::details::thread_pool>(QueueLines, 1)),
        logger(std::make_shared<spdlog::async_logger>("tavi", sinks.begin(), sinks.end(), pool,
                                                      spdlog::async_overflow_policy::overrun_oldest)) {
    logger->set_pattern("%v");
    logger->flush_on(spdlog::level::info);
  }
  /// Queues a line, and one more when lines were dropped since the last time.
  void Log(spdlog::level::level_enum level, const std::string& line) {
    logger->log(level, line);
    const std::size_t total = pool->overrun_counter();
    const std::size_t told = droppedTold.exchange(total);
    if (total > told) {
      logger->warn(BuildLine(Level::Warning, "Kbase", std::to_string(total - told) + " log lines were dropped"));
    }
  }

  std::shared_ptr<spdlog::details::thread_pool> pool;
  std::shared_ptr<spdlog::async_logger> logger;
  std::atomic<std::size_t> droppedTold{0};
};

}  // namespace

struct Logger::Impl {
  /// Guards the pointers below, never held while a line is queued or written.
  std::mutex mutex;
  std::shared_ptr<Backend> backend;
  std::shared_ptr<const Observer> observer;
  spdlog::sink_ptr console = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  std::shared_ptr<LogFile> file;
  bool consoleEnabled = true;

  std::shared_ptr<Backend> BuildBackend() const {
    std::vector<spdlog::sink_ptr> sinks;
    if (consoleEnabled) sinks.push_back(console);
    if (file) sinks.push_back(file);
    return std::make_shared<Backend>(std::move(sinks));
  }

  /// Puts a fresh back end in place and lets the old one, once its last user is through, write what it has.
  void Renew() {
    std::shared_ptr<Backend> old;
    {
      const std::lock_guard lock(mutex);
      old = std::exchange(backend, BuildBackend());
    }
    while (old && old.use_count() > 1) std::this_thread::yield();
  }
};

Logger& Logger::GetInstance() {
  static Logger instance;
  return instance;
}

Logger::Logger() : m_impl(std::make_unique<Impl>()) {
  m_impl->backend = m_impl->BuildBackend();
}

Logger::~Logger() = default;

void Logger::Log(Level level, std::string_view tag, std::string_view message) {
  std::shared_ptr<Backend> backend;
  std::shared_ptr<const Observer> observer;
  {
    const std::lock_guard lock(m_impl->mutex);
    backend = m_impl->backend;
    observer = m_impl->observer;
  }
  const std::string line = BuildLine(level, tag, message);
  if (observer) (*observer)(level, line);
  backend->Log(ToSpdlog(level), line);
}

void Logger::SetConsole(bool enabled) {
  {
    const std::lock_guard lock(m_impl->mutex);
    m_impl->consoleEnabled = enabled;
  }
  m_impl->Renew();
}

bool Logger::SetFile(const std::string& path, FileLimits limits) {
  std::shared_ptr<LogFile> sink;
  if (!path.empty()) {
    try {
      sink = std::make_shared<LogFile>(path, limits);
    } catch (const spdlog::spdlog_ex&) {
      return false;
    }
  }
  {
    const std::lock_guard lock(m_impl->mutex);
    m_impl->file = std::move(sink);
  }
  m_impl->Renew();
  return true;
}

void Logger::ReopenFile() {
  const std::lock_guard lock(m_impl->mutex);
  if (m_impl->file) m_impl->file->Reopen();
}

void Logger::SetObserver(Observer observer) {
  auto shared = observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
  const std::lock_guard lock(m_impl->mutex);
  m_impl->observer = std::move(shared);
}

void Logger::Flush() {
  m_impl->Renew();
}

}  // namespace Kbase::Klog
