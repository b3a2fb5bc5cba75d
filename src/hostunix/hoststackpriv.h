#pragma once

// Prints the C stack of this process and the interpreter's. Does nothing while another thread, or
// this one further up, is at it already.
void printStacks();
