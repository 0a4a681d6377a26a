// A plug-in of QEMU's user emulation (7.2 and newer): counts the instructions that an emulated program executes, for
// each 256 bytes of its code, and writes them down twice, so that what lies between the two is the program at work.
//
//   qemu-arm -plugin libtavi_instruction_count.so,out=PREFIX,first=SECONDS,second=SECONDS PROGRAM
//
// PREFIX.1 and PREFIX.2 have a line "map ..." for each mapping of the emulator, "base NUMBER", what lies between its
// addresses and the program's, and "ADDRESS COUNT".
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

// The header of this interface is in no Debian package; these are the parts of its version 1 that are used.
// NOLINTBEGIN(readability-identifier-naming): the emulator's names
extern "C" {
using qemu_plugin_id_t = std::uint64_t;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
struct qemu_info_t;
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t, void (*)(qemu_plugin_id_t, qemu_plugin_tb*));
void qemu_plugin_register_vcpu_tb_exec_inline(qemu_plugin_tb*, int operation, void* counter, std::uint64_t increment);
std::size_t qemu_plugin_tb_n_insns(const qemu_plugin_tb*);
std::uint64_t qemu_plugin_tb_vaddr(const qemu_plugin_tb*);
qemu_plugin_insn* qemu_plugin_tb_get_insn(const qemu_plugin_tb*, std::size_t index);
void* qemu_plugin_insn_haddr(const qemu_plugin_insn*);
__attribute__((visibility("default"))) extern const int qemu_plugin_version;
const int qemu_plugin_version = 1;
}
// NOLINTEND(readability-identifier-naming)

namespace {

constexpr int AddOperation = 0;
constexpr unsigned BlockShift = 8;
/// Of a 32-bit address space; untouched ones cost no memory.
constexpr std::size_t BlockCount = std::size_t{1} << (32 - BlockShift);

std::uint64_t* g_counts = nullptr;
std::atomic<std::uint64_t> g_base{0};
std::string g_out = "instructions";
int g_first = 40;
int g_second = 70;

void Translate(qemu_plugin_id_t, qemu_plugin_tb* block) {
  const std::uint64_t address = qemu_plugin_tb_vaddr(block);
  const auto host = reinterpret_cast<std::uintptr_t>(qemu_plugin_insn_haddr(qemu_plugin_tb_get_insn(block, 0)));
  if (host != 0) g_base = host - address;
  // Threads add without a lock: what two of them add in one instant is lost, far less than one in a thousand.
  qemu_plugin_register_vcpu_tb_exec_inline(block, AddOperation, &g_counts[(address & 0xffffffffU) >> BlockShift],
                                           qemu_plugin_tb_n_insns(block));
}

void Write(int number) {
  std::ofstream file(g_out + "." + std::to_string(number) + ".new");
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) file << "map " << line << '\n';
  file << "base " << g_base << '\n';
  for (std::size_t i = 0; i < BlockCount; ++i) {
    if (g_counts[i] != 0) file << (i << BlockShift) << ' ' << g_counts[i] << '\n';
  }
  file.close();
  std::rename((g_out + "." + std::to_string(number) + ".new").c_str(), (g_out + "." + std::to_string(number)).c_str());
}

void* Watch(void*) {
  sleep(static_cast<unsigned>(g_first));
  Write(1);
  sleep(static_cast<unsigned>(g_second - g_first));
  Write(2);
  return nullptr;
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the emulator's name
extern "C" __attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t*,
                                                                          int count, char** words) {
  for (int i = 0; i < count; ++i) {
    const std::string word = words[i];
    if (word.starts_with("out=")) g_out = word.substr(4);
    if (word.starts_with("first=")) g_first = std::atoi(word.c_str() + 6);
    if (word.starts_with("second=")) g_second = std::atoi(word.c_str() + 7);
  }
  g_counts = static_cast<std::uint64_t*>(std::calloc(BlockCount, sizeof *g_counts));
  if (g_counts == nullptr) return 1;
  qemu_plugin_register_vcpu_tb_trans_cb(id, Translate);
  pthread_t thread;
  return pthread_create(&thread, nullptr, Watch, nullptr);
}
