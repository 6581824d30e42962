// The guard on Windows: a frame-based handler, as compilers with __try make it. Handlers inside the callee
// are asked first, so a callee that recovers by itself is left alone; a vectored handler would be asked
// before them.
#include <windows.h>

#include <malloc.h>

#include "platform/guard/guarded_call.h"

void RestoreStackGuard() {
    _resetstkoflw();
}

#ifdef __i386__

// GuardThunk puts {previous, handler} on its stack and into fs:[0]. The handler unwinds the callee's frames
// (their clean-up runs), drops back to GuardThunk's frame and returns 1 from it. RtlUnwind destroys ebx, esi
// and edi: everything is reloaded from the frame.
__asm__(
    ".text\n"
    ".globl _GuardThunk\n"
    "_GuardThunk:\n"
    "  pushl %ebp\n"
    "  movl %esp, %ebp\n"
    "  pushl %ebx\n"
    "  pushl %esi\n"
    "  pushl %edi\n"                 // ebp-12
    "  pushl $_GuardFrameHandler\n"  // ebp-16
    "  pushl %fs:0\n"                // ebp-20: the registration record
    "  movl %esp, %fs:0\n"
    "  pushl 12(%ebp)\n"  // esp is now a multiple of 16, as the compiler expects at a call
    "  call *8(%ebp)\n"
    "  xorl %eax, %eax\n"
    "0:\n"
    "  leal -20(%ebp), %esp\n"
    "  popl %fs:0\n"
    "  addl $4, %esp\n"
    "  popl %edi\n"
    "  popl %esi\n"
    "  popl %ebx\n"
    "  popl %ebp\n"
    "  ret\n"
    "_GuardFrameHandler:\n"  // cdecl(record, frame, context, dispatcher)
    "  pushl %ebp\n"
    "  movl %esp, %ebp\n"
    "  movl 8(%ebp), %eax\n"
    "  testl $6, 4(%eax)\n"  // unwinding or exit unwind: nothing of ours to clean
    "  jnz 1f\n"
    "  movl (%eax), %edx\n"    // exception code
    "  movl 12(%ebp), %ecx\n"  // our record: GuardThunk's ebp - 20
    "  movl 36(%ecx), %ecx\n"  // GuardThunk's third argument, its 16(ebp)
    "  movl %edx, (%ecx)\n"
    "  pushl $0\n"
    "  pushl %eax\n"
    "  pushl $2f\n"
    "  pushl 12(%ebp)\n"
    "  call _RtlUnwind@16\n"
    "2:\n"
    "  cld\n"
    "  movl 12(%ebp), %ecx\n"
    "  leal 20(%ecx), %ebp\n"
    "  movl $1, %eax\n"
    "  jmp 0b\n"
    "1:\n"
    "  movl $1, %eax\n"  // ExceptionContinueSearch
    "  popl %ebp\n"
    "  ret\n");

#else

// 64-bit: the handler is found through the function's unwind table, and RtlUnwindEx comes back to
// GuardRecover.
__asm__(
    ".text\n"
    ".globl GuardThunk\n"
    ".seh_proc GuardThunk\n"
    "GuardThunk:\n"
    "  pushq %rbp\n"
    "  .seh_pushreg %rbp\n"
    "  movq %rsp, %rbp\n"
    "  .seh_setframe %rbp, 0\n"
    "  subq $48, %rsp\n"
    "  .seh_stackalloc 48\n"
    "  .seh_endprologue\n"
    "  movq %r8, -8(%rbp)\n"
    "  movq %rcx, %rax\n"
    "  movq %rdx, %rcx\n"
    "  call *%rax\n"
    "  xorl %eax, %eax\n"
    "GuardRecover:\n"  // RtlUnwindEx arrives here with rax = 1
    "  addq $48, %rsp\n"
    "  popq %rbp\n"
    "  ret\n"
    "  .seh_handler GuardFrameHandler, @except\n"
    "  .seh_endproc\n");

extern "C" char GuardRecover[];

extern "C" EXCEPTION_DISPOSITION GuardFrameHandler(EXCEPTION_RECORD* record, void* frame, CONTEXT*,
                                                   DISPATCHER_CONTEXT* dispatcher) {
    if ((record->ExceptionFlags & 6) != 0) return ExceptionContinueSearch;
    **reinterpret_cast<DWORD**>(static_cast<char*>(frame) - 8) = record->ExceptionCode;
    RtlUnwindEx(frame, GuardRecover, record, reinterpret_cast<void*>(1), dispatcher->ContextRecord,
                dispatcher->HistoryTable);
    return ExceptionContinueSearch;
}

#endif
