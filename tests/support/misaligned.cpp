#include "misaligned.h"

__attribute__((naked)) void callMisaligned() {
  asm(R"(
    push %ebp
    mov %esp, %ebp
    sub $72, %esp
    sub 12(%ebp), %esp
    mov $12, %ecx
  1:
    mov 12(%ebp, %ecx, 4), %eax
    mov %eax, -4(%esp, %ecx, 4)
    dec %ecx
    jnz 1b
    call *8(%ebp)
    leave
    ret)");
}
