// A disk that forgets what was not synced, or cannot be read at one place, preloaded into a program, which it also ends
// before a given operation.
//
// TAVI_DISK_ROOT is the disk, TAVI_DISK_MEMORY an empty directory outside of it that keeps what the disk would still
// have after a power cut: of each file its content when it was synced last, of each directory the names when it was.
// What is there when the program starts counts as synced; without such a directory nothing is kept. TAVI_DISK_DIES_AT
// is the number of the operation (fsync, fdatasync, rename, unlink on that disk, from 1) that the program does not live
// to make; 0: all of them.
//
// TAVI_DISK_FAILS_READ is the number of the read of a file or directory on that disk, from 1, that fails with EIO; 0:
// none.
//
// Stricter than any file system: a name lasts only when its directory was synced, whatever was done to the file.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

  /// True when this read of `path` is the one that fails, with errno set.
  bool Fails(const std::string& path) {
    if (m_failsRead == 0 || !Has(path)) return false;
    const std::lock_guard lock(m_mutex);
    if (++m_reads != m_failsRead) return false;
    std::fprintf(stderr, "preloaded disk: EIO for %s\n", path.c_str());
    errno = EIO;
    return true;
  }

  void Keep(const std::string& path) {
    if (!Has(path) || m_memory.empty()) return;
    const std::lock_guard lock(m_mutex);
    KeepNow(path);
  }

 private:
  Memory() : m_root(Read("TAVI_DISK_ROOT")), m_memory(Read("TAVI_DISK_MEMORY")) {
    m_diesAt = std::atoi(Read("TAVI_DISK_DIES_AT").c_str());
    m_failsRead = std::atoi(Read("TAVI_DISK_FAILS_READ").c_str());
    if (m_root.empty() || m_memory.empty()) return;
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
  int m_failsRead = 0;
  int m_reads = 0;
  std::mutex m_mutex;
};

std::string GetPath(int file) {
  std::error_code error;
  const auto path = fs::read_symlink("/proc/self/fd/" + std::to_string(file), error);
  return error ? "" : path.string();
}

/// With errno as it was, unless it does.
bool FailsRead(int file) {
  static const bool isAsked = std::getenv("TAVI_DISK_FAILS_READ") != nullptr;
  if (!isAsked) return false;
  const int before = errno;
  const bool fails = Memory::Get().Fails(GetPath(file));
  if (!fails) errno = before;
  return fails;
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

ssize_t read(int file, void* data, size_t size) {
  return FailsRead(file) ? -1 : Find<ssize_t(int, void*, size_t)>("read")(file, data, size);
}

ssize_t pread(int file, void* data, size_t size, off_t offset) {
  return FailsRead(file) ? -1 : Find<ssize_t(int, void*, size_t, off_t)>("pread")(file, data, size, offset);
}

ssize_t pread64(int file, void* data, size_t size, off64_t offset) {
  return FailsRead(file) ? -1 : Find<ssize_t(int, void*, size_t, off64_t)>("pread64")(file, data, size, offset);
}

ssize_t sendfile(int to, int from, off_t* offset, size_t size) noexcept {
  return FailsRead(from) ? -1 : Find<ssize_t(int, int, off_t*, size_t)>("sendfile")(to, from, offset, size);
}

ssize_t sendfile64(int to, int from, off64_t* offset, size_t size) noexcept {
  return FailsRead(from) ? -1 : Find<ssize_t(int, int, off64_t*, size_t)>("sendfile64")(to, from, offset, size);
}

dirent* readdir(DIR* directory) {
  return FailsRead(dirfd(directory)) ? nullptr : Find<dirent*(DIR*)>("readdir")(directory);
}

dirent64* readdir64(DIR* directory) {
  return FailsRead(dirfd(directory)) ? nullptr : Find<dirent64*(DIR*)>("readdir64")(directory);
}

int unlink(const char* path) noexcept {
  Memory::Get().Count(Resolve(path));
  return Find<int(const char*)>("unlink")(path);
}
}
