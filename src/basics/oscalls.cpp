#include <cstdlib>

#include "fortests.h"

constinit OsCalls osCallsForTests;

void* (*utlHeapAllocateForTests)(std::size_t length) = std::malloc;
