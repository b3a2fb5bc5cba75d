// What the fault handler and HostInit need of the guard pages.
#pragma once

// Frees every slot without touching the pages.
void forgetProtectedPages();

// Offers an access at `faultAddr` (null: the address is not known, so every guarded page counts) to
// the handlers of the pages it may concern, in slot order. Returns true when a handler took it and
// its page has been made accessible. Signal-safe, as far as the handlers are.
bool handleGuardPageAccess(char* faultAddr);
