// The exported symbols. Each is one indirect jump through its slot of vekrEntryTable, so the
// implementation receives the caller's arguments and return address untouched. Slots are
// numbered in the order of entry_list.h.
#if defined(__x86_64__)
#define VEKR_SLOT_BYTES 8
#define VEKR_JUMP_THROUGH_SLOT jmp *(vekrEntryTable + .Lslot)(%rip)
#elif defined(__i386__)
// 32-bit x86 has no PC-relative addressing: the stub calls a thunk for its own address, adds
// the distance to the GOT and jumps through the slot at its GOT offset, so the text needs no
// relocation. The thunk's return address goes below the stack pointer and is popped again:
// the caller's stack arguments and return address are untouched. ecx is caller-saved and
// carries no argument (cdecl passes every argument on the stack).
#define VEKR_SLOT_BYTES 4
#define VEKR_JUMP_THROUGH_SLOT                     \
    call .Lload_return_address_into_ecx;           \
    addl $_GLOBAL_OFFSET_TABLE_, %ecx;             \
    jmp *(vekrEntryTable@GOTOFF + .Lslot)(%ecx)
#else
#error "the export stubs are written for x86"
#endif

#define VEKR_ENTRY(name)                \
    .globl name;                        \
    .type name, @function;              \
    .p2align 4;                         \
name:                                   \
    VEKR_JUMP_THROUGH_SLOT;             \
    .size name, . - name;               \
    .set .Lslot, .Lslot + VEKR_SLOT_BYTES;

    .hidden vekrEntryTable
    .text
#if defined(__i386__)
    .p2align 4
.Lload_return_address_into_ecx:
    movl (%esp), %ecx
    ret
#endif
    .set .Lslot, 0
#include "entry_list.h"

    .section .note.GNU-stack, "", @progbits
