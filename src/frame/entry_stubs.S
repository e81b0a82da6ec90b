// The exported symbols. Each is one indirect jump through its slot of vekrEntryTable, so the
// implementation receives the caller's arguments and return address untouched. Slots are
// numbered in the order of entry_list.h.
#if defined(__x86_64__)
#define VEKR_SLOT_BYTES 8
#define VEKR_JUMP_THROUGH_SLOT jmp *(vekrEntryTable + .Lslot)(%rip)
#elif defined(__i386__)
// 32-bit: an absolute slot address (a text relocation the loader resolves at attach).
#define VEKR_SLOT_BYTES 4
#define VEKR_JUMP_THROUGH_SLOT jmp *(vekrEntryTable + .Lslot)
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
    .set .Lslot, 0
#include "entry_list.h"

    .section .note.GNU-stack, "", @progbits
