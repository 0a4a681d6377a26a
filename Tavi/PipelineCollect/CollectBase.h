// The base of every collector: one stream's file of one event, written on a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Util/EntryGuard.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::PipelineCollect {

/// One file's copy under way on a thread of its own. Whoever has it joins it.
class BackupThread {
 public:
  /// `copy` runs at once: on a thread of its own, or on the caller's where the system has none to give.
  explicit BackupThread(const std::function<bool()>& copy);
  ~BackupThread() { join(); }
  BackupThread(const BackupThread&) = delete;
  BackupThread& operator=(const BackupThread&) = delete;

  /// Waits for the copy's end.
  void join();
  /// What the copy has returned. Joins.
  [[nodiscard]] bool IsSaved();

 private:
  std::thread m_thread;
  bool m_saved = false;
  Kbase::Util::EntryGuard m_guard{"Tavi", "a file's copy failed"};
};

/// Armed with Init, run once on its own thread, then read, copied or deleted, and Reset.
///
/// Init, Reset, CopyTo and DeletePath are called by the manager while the thread does not run. RequestStop and
/// SetSyncToDisk are thread-safe. A subclass calls Stop() in its destructor.
class CollectBase : public Kbase::Interfaces::IThread {
 public:
  explicit CollectBase(PipelineCollectType type, std::string threadName = "COLLECT");
  ~CollectBase() override;

  /// Arms the collector: a fresh file name in `config.outputDir`, nothing on disk yet.
  virtual void Init(PipelineCollectConfig& config);
  /// Back to idle: no path, nothing collected.
  virtual void Reset();
  /// Whole seconds that the last collect wrote.
  virtual unsigned int GetTotalSecondsCollected() { return 0; }
  /// Makes `other` a twin of this finished collect, so that this collector can be armed again.
  virtual void CopyTo(CollectBase* other);
  /// The work itself; runs on the collector's thread.
  virtual void Collect() = 0;
  /// Puts what the last collect has brought into the event's result: its file when there is one, and what else the
  /// stream tells. Not while the thread runs.
  virtual void Report(PipelineCollectOutput& output) const;

  /// True when the file exists and is not empty.
  static bool IsPathAvailable(const std::string& path);
  bool IsPathAvailable() const { return IsPathAvailable(m_path); }
  /// Removes what the collect has written; a missing file is no error.
  virtual void DeletePath();
  /// Copies the file to `dir` under prefix + `name` + extension (".mp4" once it was muxed). False when there is nothing
  /// to copy or the copy failed; what fitted then stays, with ".part" behind its name.
  bool Backup(const std::string& dir, const std::string& name) const;
  /// Where Backup puts the file.
  [[nodiscard]] std::string GetBackupPath(const std::string& dir, const std::string& name) const;
  /// Backup on a thread of its own; the caller joins it.
  std::unique_ptr<BackupThread> BackupAsync(const std::string& dir, const std::string& name) const;

  /// File name parts by type; both empty for an unknown type.
  static void GetPipelineCollectPrefixAndExtension(PipelineCollectType type, std::string& prefix,
                                                   std::string& extension);
  void GetPipelineCollectPrefixAndExtension(std::string& prefix, std::string& extension) const;
  static std::string GetPipelineCollectPrefix(PipelineCollectType type);
  /// Prefix + `name` + extension of this collector's type.
  std::string GetPipelineCollectFileName(const std::string& name) const;

  /// Asks a running collect to finish its file early.
  void RequestStop();
  /// True while the collect waits for a source that delivers nothing, and would wait on. Thread-safe.
  [[nodiscard]] bool IsSilent() const { return m_silent; }
  /// Tells a silent collect that nobody waits for it any longer: it ends with what it has, now or when its source falls
  /// silent again. Thread-safe.
  void EndInSilence();
  /// Flush and fsync the file before it is closed. Set before RequestStop, power is failing: what there is of the
  /// window is written before the file is closed.
  void SetSyncToDisk(bool sync) { m_syncToDisk = sync; }

  [[nodiscard]] PipelineCollectType GetType() const { return m_type; }
  /// Full path of this event's file; empty when not armed.
  [[nodiscard]] const std::string& GetPath() const { return m_path; }
  /// The last collect left a file that is not empty.
  [[nodiscard]] bool IsCollected() const { return m_collected; }
  [[nodiscard]] bool IsArmed() const { return m_armed; }

 protected:
  void Run() override;
  /// True once the collect is to end: asked to stop, or its thread aborted.
  [[nodiscard]] bool ShouldStop() const { return m_stop || IsCancelled(); }
  /// True when what there is shall be saved before the end.
  [[nodiscard]] bool IsSaving() const { return m_stop && m_syncToDisk && !IsCancelled(); }

  std::string m_path;
  std::atomic<bool> m_collected{false};
  PipelineCollectType m_type;
  std::atomic<bool> m_stop{false};
  std::atomic<bool> m_syncToDisk{false};
  std::atomic<bool> m_silent{false};
  std::atomic<bool> m_endInSilence{false};
  PipelineCollectConfig m_config;
  bool m_armed = false;
};

}  // namespace Tavi::PipelineCollect
