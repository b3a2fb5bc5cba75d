#include "session.h"

#include <algorithm>
#include <cstring>

#include "vm/tracing.h"

namespace zel {

void setPendingError(PendingError& pending, const Memory* memory, Session* session,
                     const Failure& failure) {
  ZelErrSType& record = pending.record;
  record = {};
  record.category = SystemErrCategoryOop;
  record.number = failure.number;
  const std::string text = errorText(failure, sizeof record.message - 1);
  std::memcpy(record.message, text.data(), text.size());
  record.context = NilOop;
  pending.set = true;
  if (session == nullptr) return;
  if (failure.context != 0) record.context = handOut(*memory, session->client, failure.context);
  const auto args = static_cast<std::int32_t>(
      std::min<std::size_t>(failure.args.size(), std::size_t{ZelMaxErrArgs}));
  for (; record.argCount < args; ++record.argCount) {
    record.args[record.argCount] =
        handOut(*memory, session->client, failure.args[static_cast<std::size_t>(record.argCount)]);
  }
}

bool takePendingError(PendingError& pending, ZelErrSType& error) {
  if (!pending.set) return false;
  error = pending.record;
  pending.set = false;
  return true;
}

}  // namespace zel
