// A plug-in of QEMU's system emulation (7.2 and newer): counts the instructions that an emulated ARM board executes, in
// its programs and in its kernel, and writes both counts down whenever a program executes the instruction of a mark.
//
//   qemu-system-arm -plugin libtavi_mode_count.so,out=FILE
//
// FILE has a line "USER KERNEL" for each mark.
#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

// The header of this interface is in no Debian package; these are the parts of its version 1 that are used.
// NOLINTBEGIN(readability-identifier-naming): the emulator's names
extern "C" {
using qemu_plugin_id_t = std::uint64_t;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
struct qemu_info_t;
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t, void (*)(qemu_plugin_id_t, qemu_plugin_tb*));
void qemu_plugin_register_vcpu_insn_exec_inline(qemu_plugin_insn*, int operation, void* counter,
                                                std::uint64_t increment);
void qemu_plugin_register_vcpu_insn_exec_cb(qemu_plugin_insn*, void (*)(unsigned, void*), int registers, void*);
std::size_t qemu_plugin_tb_n_insns(const qemu_plugin_tb*);
qemu_plugin_insn* qemu_plugin_tb_get_insn(const qemu_plugin_tb*, std::size_t index);
const void* qemu_plugin_insn_data(const qemu_plugin_insn*);
std::size_t qemu_plugin_insn_size(const qemu_plugin_insn*);
std::uint64_t qemu_plugin_insn_vaddr(const qemu_plugin_insn*);
__attribute__((visibility("default"))) extern const int qemu_plugin_version;
const int qemu_plugin_version = 1;
}
// NOLINTEND(readability-identifier-naming)

namespace {

constexpr int AddOperation = 0;
constexpr int NoRegisters = 0;
/// Of a kernel with three of the four gigabytes for programs; its modules lie below it.
constexpr std::uint64_t KernelBegin = 0xBF000000;
/// As scripts/board/instructions.py has it.
constexpr std::uint32_t MarkInstruction = 0xE19BB00B;

/// By whether it is the kernel's. There is one processor, so nobody else adds.
std::array<std::uint64_t, 2> g_counts{};
std::FILE* g_out = nullptr;

void Write(unsigned, void*) {
  std::fprintf(g_out, "%" PRIu64 " %" PRIu64 "\n", g_counts[0], g_counts[1]);
  std::fflush(g_out);
}

bool IsMark(const qemu_plugin_insn* instruction) {
  std::uint32_t code = 0;
  if (qemu_plugin_insn_size(instruction) != sizeof code) return false;
  std::memcpy(&code, qemu_plugin_insn_data(instruction), sizeof code);
  return code == MarkInstruction;
}

// One by one: of a block that a fault ends the rest is not executed.
void Translate(qemu_plugin_id_t, qemu_plugin_tb* block) {
  for (std::size_t i = 0; i < qemu_plugin_tb_n_insns(block); ++i) {
    qemu_plugin_insn* instruction = qemu_plugin_tb_get_insn(block, i);
    const bool isKernel = qemu_plugin_insn_vaddr(instruction) >= KernelBegin;
    qemu_plugin_register_vcpu_insn_exec_inline(instruction, AddOperation, &g_counts[isKernel ? 1 : 0], 1);
    if (IsMark(instruction)) qemu_plugin_register_vcpu_insn_exec_cb(instruction, Write, NoRegisters, nullptr);
  }
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the emulator's name
extern "C" __attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t*,
                                                                          int count, char** arguments) {
  constexpr const char* Out = "out=";
  for (int i = 0; i < count; ++i) {
    if (std::strncmp(arguments[i], Out, std::strlen(Out)) == 0)
      g_out = std::fopen(arguments[i] + std::strlen(Out), "we");
  }
  if (g_out == nullptr) return -1;
  qemu_plugin_register_vcpu_tb_trans_cb(id, Translate);
  return 0;
}
