/* Calls with the stack aligned to 4 bytes only, as older 32-bit code calls:
   int zel_call_skewed(const void* fn, const unsigned* words, int n, int skew)
   copies n argument words onto a stack whose first argument lies `skew`
   bytes past a 16-byte boundary and calls fn. zel_stack_probe returns the
   address of its first argument, so a test can see the skew. */
#if defined(__i386__)
    .text
    .globl zel_call_skewed
    .type zel_call_skewed, @function
zel_call_skewed:
    pushl %ebp
    movl %esp, %ebp
    pushl %esi
    pushl %edi
    movl 12(%ebp), %esi
    movl 16(%ebp), %ecx
    leal 32(,%ecx,4), %eax
    subl %eax, %esp
    andl $-16, %esp
    addl 20(%ebp), %esp
    movl %esp, %edi
    cld
    rep movsl
    call *8(%ebp)
    leal -8(%ebp), %esp
    popl %edi
    popl %esi
    popl %ebp
    ret
    .size zel_call_skewed, .-zel_call_skewed

    .globl zel_stack_probe
    .type zel_stack_probe, @function
zel_stack_probe:
    leal 4(%esp), %eax
    ret
    .size zel_stack_probe, .-zel_stack_probe
#endif
    .section .note.GNU-stack, "", @progbits
