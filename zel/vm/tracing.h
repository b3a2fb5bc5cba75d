// Where programs are: for the messages of errors, and as the stack of a process.
#pragma once

#include "objmem/memory.h"

namespace zel {

// The failure's text and, when it has one, its place, in at most so many bytes: too long a text, or
// a method's name, is cut between characters.
std::string errorText(const Failure& failure, std::size_t most);

// Says in the failure where the process is at, unless it says already where something happened:
// in the innermost activation of a method that is none of the kernel's, or in the innermost of all
// when there is none. Says nothing when there is no memory for it.
void locate(const Memory& memory, const ProcessState& process, Failure& failure) noexcept;

// The activations, innermost first, one a line; the middle ones of a deep stack are counted only.
// Of a process that was given up, what it kept.
std::string stackText(const Memory& memory, const ProcessState& process);

// To be called before a process loses its activations: it keeps its stack's text, if there is
// memory for it. The caller recounts the process.
void keepStackText(const Memory& memory, ProcessState& process) noexcept;

}  // namespace zel
