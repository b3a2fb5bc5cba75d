/* The atomic primitives of atomics.h. Arguments are at 4(%esp) and 8(%esp); only %eax, %ecx and
   %edx are used, so that nothing is saved and the stack's alignment does not matter. */

        .macro  function name
        .globl  \name
        .type   \name, @function
        .p2align 4
\name:
        .cfi_startproc
        .endm

        .macro  endfunction name
        .cfi_endproc
        .size   \name, . - \name
        .endm

        .text

/* A locked instruction orders all that a fence orders, at a fraction of the price. */
        function HostShrMemoryBarrier
        lock orl $0, (%esp)
        ret
        endfunction HostShrMemoryBarrier

        function HostAsmTryLock
        movl    4(%esp), %edx
        movl    $1, %eax
        xchgl   %eax, (%edx)
        testl   %eax, %eax
        jne     2f
1:      movl    $1, %eax
        ret
2:      movl    8(%esp), %ecx
/* Waiting only reads, so that the waiters do not pull the word's cache line to and fro. */
3:      pause
        decl    %ecx
        je      4f
        cmpl    $0, (%edx)
        jne     3b
        movl    $1, %eax
        xchgl   %eax, (%edx)
        testl   %eax, %eax
        je      1b
        jmp     3b
4:      xorl    %eax, %eax
        ret
        endfunction HostAsmTryLock

        function HostAsmUnlock
        movl    4(%esp), %edx
        xorl    %eax, %eax
        xchgl   %eax, (%edx)
        ret
        endfunction HostAsmUnlock

        function HostAsmClearLockedPage
        movl    4(%esp), %edx
        movl    $-1, %eax
        xchgl   %eax, (%edx)
        ret
        endfunction HostAsmClearLockedPage

        function HostAsmSyncCtrAdd
        movl    4(%esp), %edx
        movl    8(%esp), %eax
        lock xaddl %eax, (%edx)
        ret
        endfunction HostAsmSyncCtrAdd

/* The word takes the operation with the second argument; the result is what it was before. */
        .macro locked_update name, operation
        function \name
        movl    4(%esp), %edx
        movl    (%edx), %eax
1:      movl    8(%esp), %ecx
        \operation %eax, %ecx
        lock cmpxchgl %ecx, (%edx)
        jne     1b
        ret
        endfunction \name
        .endm

        locked_update HostAsmSyncOr, orl
        locked_update HostAsmSyncAnd, andl

        .section .note.GNU-stack, "", @progbits
