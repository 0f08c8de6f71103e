// A plug-in of qemu's user-mode emulators: counts the instructions that a program takes between its calls of
// CountFromHere() and CountToHere(), all threads together, and writes "instructions N" to standard error at the second.
//
// Debian's emulators load plug-ins and come without the header for them, so that the few operations it takes are declared
// here.
#include <unistd.h>

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" {

struct Block;
struct Instruction;
using Plugin = std::uint64_t;

void qemu_plugin_register_vcpu_tb_trans_cb(Plugin plugin, void (*pTranslated)(Plugin, Block*));
void qemu_plugin_register_vcpu_tb_exec_inline(Block* pBlock, int nOperation, void* pCounter, std::uint64_t nValue);
void qemu_plugin_register_vcpu_insn_exec_cb(Instruction* pInstruction, void (*pExecuted)(unsigned int, void*),
                                            int nFlags, void* pData);
std::size_t qemu_plugin_tb_n_insns(const Block* pBlock);
Instruction* qemu_plugin_tb_get_insn(const Block* pBlock, std::size_t nIndex);
const char* qemu_plugin_insn_symbol(const Instruction* pInstruction);

}  // extern "C"

namespace {

constexpr int kAdd = 0;
constexpr int kRegistersUntouched = 0;

std::uint64_t g_nExecuted;
std::uint64_t g_nBefore;

/// The program may send its standard error elsewhere, which is the emulator's too.
const int g_nOutput = dup(STDERR_FILENO);

void Begin(unsigned int, void*) {
    g_nBefore = g_nExecuted;
}

void End(unsigned int, void*) {
    dprintf(g_nOutput, "instructions %" PRIu64 "\n", g_nExecuted - g_nBefore);
}

/// A block is a run of instructions without a jump into it: counted as a whole where it begins.
void Translated(Plugin, Block* pBlock) {
    qemu_plugin_register_vcpu_tb_exec_inline(pBlock, kAdd, &g_nExecuted, qemu_plugin_tb_n_insns(pBlock));
    Instruction* const pFirst = qemu_plugin_tb_get_insn(pBlock, 0);
    const char* const pszFunction = qemu_plugin_insn_symbol(pFirst);
    if (pszFunction == nullptr) {
        return;
    }
    if (std::strcmp(pszFunction, "CountFromHere") == 0) {
        qemu_plugin_register_vcpu_insn_exec_cb(pFirst, Begin, kRegistersUntouched, nullptr);
    } else if (std::strcmp(pszFunction, "CountToHere") == 0) {
        qemu_plugin_register_vcpu_insn_exec_cb(pFirst, End, kRegistersUntouched, nullptr);
    }
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int qemu_plugin_version = 1;

[[gnu::visibility("default")]] int qemu_plugin_install(Plugin plugin, const void*, int, char**) {
    qemu_plugin_register_vcpu_tb_trans_cb(plugin, Translated);
    return 0;
}

}  // extern "C"
