#include "session.h"

#include <algorithm>
#include <cstring>

#include "vm/tracing.h"

namespace zel {

void setPendingError(PendingError& pending, Session* session, const Failure& failure) {
  ZelErrSType& record = pending.record;
  record = {};
  record.category = SystemErrCategoryOop;
  record.number = failure.number;
  const std::string text = errorText(failure, sizeof record.message - 1);
  std::memcpy(record.message, text.data(), text.size());
  record.context = NilOop;
  pending.set = true;
  if (session == nullptr) return;
  if (failure.context != 0) record.context = failure.context;
  const std::size_t args = std::min(failure.args.size(), std::size_t{ZelMaxErrArgs});
  std::copy_n(failure.args.begin(), args, record.args);
  record.argCount = static_cast<std::int32_t>(args);
  Client& client = session->client;
  client.failed.fill(NilOop);
  client.failed.back() = record.context;
  std::copy_n(record.args, args, client.failed.begin());
  client.failedNow = true;
}

bool takePendingError(PendingError& pending, ZelErrSType& error) {
  if (!pending.set) return false;
  error = pending.record;
  pending.set = false;
  return true;
}

}  // namespace zel
