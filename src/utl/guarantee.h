// Broken guarantees: conditions that cannot fail unless the process itself is damaged.
#pragma once

// Reports the broken guarantee at `line` of `module` ("src/utlheap") to the fatal path. Returns
// only when that path is told not to halt.
void utlGuaranteeFailed(const char* module, int line);
