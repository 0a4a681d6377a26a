// A disk that forgets what was not synced, preloaded into a program, which it also ends before a given operation.
//
// TAVI_DISK_ROOT is the disk, TAVI_DISK_MEMORY an empty directory outside of it that keeps what the disk would still
// have after a power cut: of each file its content when it was synced last, of each directory the names when it was.
// What is there when the program starts counts as synced. TAVI_DISK_DIES_AT is the number of the operation (fsync,
// fdatasync, rename, unlink on that disk, from 1) that the program does not live to make; 0: all of them.
//
// Stricter than any file system: a name lasts only when its directory was synced, whatever was done to the file.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>

namespace {

namespace fs = std::filesystem;

template <class Function>
Function* Find(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// What tells one file or directory from every other, also from a later one with the same inode.
std::string GetKey(const std::string& path) {
  struct statx status {};
  ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &status);
  return std::to_string(status.stx_ino) + "-" + std::to_string(status.stx_btime.tv_sec) + "-" +
         std::to_string(status.stx_btime.tv_nsec);
}

class Memory {
 public:
  static Memory& Get() {
    static Memory memory;
    return memory;
  }

  /// Ends the program when this operation on `path` is the one.
  void Count(const std::string& path) {
    if (!Has(path)) return;
    const std::lock_guard lock(m_mutex);
    if (++m_count == m_diesAt) ::kill(::getpid(), SIGKILL);
  }

  void Keep(const std::string& path) {
    if (!Has(path)) return;
    const std::lock_guard lock(m_mutex);
    KeepNow(path);
  }

 private:
  Memory() : m_root(Read("TAVI_DISK_ROOT")), m_memory(Read("TAVI_DISK_MEMORY")) {
    m_diesAt = std::atoi(Read("TAVI_DISK_DIES_AT").c_str());
    if (m_root.empty()) return;
    KeepNow(m_root);
    for (const auto& entry : fs::recursive_directory_iterator(m_root)) KeepNow(entry.path());
    std::ofstream(m_memory + "/root") << GetKey(m_root);
  }

  static std::string Read(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
  }
  bool Has(const std::string& path) const { return !m_root.empty() && path.starts_with(m_root); }

  /// Never half: the program may end in the middle.
  void KeepNow(const std::string& path) const {
    const std::string kept = m_memory + "/" + GetKey(path);
    const std::string aside = kept + ".new";
    if (fs::is_symlink(path)) return;
    if (fs::is_directory(path)) {
      std::ofstream names(aside);
      for (const auto& entry : fs::directory_iterator(path)) {
        names << (entry.is_directory() ? "d " : "f ") << GetKey(entry.path()) << " " << entry.path().filename().string()
              << "\n";
      }
    } else {
      std::error_code ignored;
      fs::copy_file(path, aside, fs::copy_options::overwrite_existing, ignored);
    }
    Find<int(const char*, const char*)>("rename")(aside.c_str(), kept.c_str());
  }

  const std::string m_root;
  const std::string m_memory;
  int m_diesAt = 0;
  int m_count = 0;
  std::mutex m_mutex;
};

std::string GetPath(int file) {
  std::error_code error;
  const auto path = fs::read_symlink("/proc/self/fd/" + std::to_string(file), error);
  return error ? "" : path.string();
}

/// As the kernel knows it: names may lead through an open directory.
std::string Resolve(const char* path) {
  std::error_code error;
  const fs::path name(path);
  const auto parent = fs::canonical(name.has_parent_path() ? name.parent_path() : ".", error);
  return error ? "" : (parent / name.filename()).string();
}

template <class Sync>
int SyncAndKeep(int file, Sync* sync) {
  const std::string path = GetPath(file);
  Memory::Get().Count(path);
  const int result = sync(file);
  if (result == 0) Memory::Get().Keep(path);
  return result;
}

/// What is there at the start is on the disk.
[[maybe_unused]] const Memory& Loaded = Memory::Get();

}  // namespace

extern "C" {

int fsync(int file) {
  return SyncAndKeep(file, Find<int(int)>("fsync"));
}

int fdatasync(int file) {
  return SyncAndKeep(file, Find<int(int)>("fdatasync"));
}

int rename(const char* from, const char* to) noexcept {
  Memory::Get().Count(Resolve(to));
  return Find<int(const char*, const char*)>("rename")(from, to);
}

int unlink(const char* path) noexcept {
  Memory::Get().Count(Resolve(path));
  return Find<int(const char*)>("unlink")(path);
}
}
