/* Assembler macros for the export stubs and their dispatch cells.
   A stub has no frame of its own: it jumps through its cell, so the caller's
   arguments and return address reach the API function untouched. The cells
   live in .data.rel.ro: the loader fills them, then they are read-only. */
#if defined(__x86_64__)
#define ZEL_STUB(name)                                  \
    .text; .globl name; .type name, @function;          \
    .p2align 4; name: jmp *name##_arraddr(%rip);        \
    .size name, .-name;
#define ZEL_CELL(name)                                  \
    .hidden name##_arraddr; .type name##_arraddr, @object; \
    name##_arraddr: .quad w7_##name;                    \
    .size name##_arraddr, 8;
#define ZEL_CELLS_BEGIN .section .data.rel.ro, "aw"; .p2align 3;
#elif defined(__i386__)
#define ZEL_STUB(name)                                  \
    .text; .globl name; .type name, @function;          \
    .p2align 4; name: call 1f; 1: popl %eax;            \
    jmp *(name##_arraddr - 1b)(%eax);                   \
    .size name, .-name;
#define ZEL_CELL(name)                                  \
    .hidden name##_arraddr; .type name##_arraddr, @object; \
    name##_arraddr: .long w7_##name;                    \
    .size name##_arraddr, 4;
#define ZEL_CELLS_BEGIN .section .data.rel.ro, "aw"; .p2align 2;
#else
#error "zelm stubs are written for x86 and x86-64"
#endif
#define ZEL_CELLS_END .text;
#define ZEL_NOTE_GNU_STACK .section .note.GNU-stack, "", @progbits;
