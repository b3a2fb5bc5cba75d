// Sessions: who is logged in, and what each has on its own.
#pragma once

#include "objmem/clients.h"
#include "transcript.h"
#include "vm/machine.h"

namespace zel {

constexpr std::int32_t mostSessions = 64;

// The error that waits for ZelErr.
struct PendingError {
  bool set = false;
  ZelErrSType record{};
};

struct Session {
  std::int32_t id = 0;
  std::string user;
  Names names;
  Client client;
  PendingError error;
  Transcript transcript;
  bool selects = false;  // its client says itself where requests begin, by selecting it
};

// Stores a failure as the pending error, in place of an earlier one. Its objects are kept for the
// session, null for a failure that concerns none.
void setPendingError(PendingError& pending, Session* session, const Failure& failure);
// Takes the pending error; answers false, and leaves `error` alone, if none waits.
bool takePendingError(PendingError& pending, ZelErrSType& error);

}  // namespace zel
