#include <povzel/syserror.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <povzel/unixerr.h>
#include "basics/internal.h"

namespace {

// A text in a record's field, with the room behind it.
class Message {
 public:
  explicit Message(char (&field)[4096]) : field_(field), length_(0) {}

  void append(std::string_view text) {
    const std::size_t length = std::min(text.size(), room() - 1);
    std::memcpy(end(), text.data(), length);
    length_ += length;
    *end() = '\0';
  }

  char* end() { return field_ + length_; }
  std::size_t room() const { return sizeof field_ - length_; }

 private:
  char (&field_)[4096];
  std::size_t length_;
};

}  // namespace

void SysErrorSType::setErr(int errnoValue) {
  errCode = UnixErrOsErrToSysErr(errnoValue, SYSERRCAT_ERRNO);
}

void SysErrorSet(SysErrorSType* record, long hostError, const char* format, ...) {
  if (record == nullptr) return;
  const ErrnoKeeper keeper;
  record->hostError = hostError;

  // Formatted beside the field, whose present text may be an argument.
  char text[sizeof record->errMsg];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  Message message(record->errMsg);
  message.append({text, static_cast<std::size_t>(std::clamp(length, 0, int{sizeof text} - 1))});

  record->errCode = SYSERR_NONE;
  if (hostError == -1) return;
  if (hostError == 0) {
    message.append(": failed with no error code");
    return;
  }
  record->setErr(hostError);
  message.append(": ");
  UnixErr(hostError, message.end(), message.room());
}

void SysErrorClear(SysErrorSType* record) {
  record->errCode = SYSERR_NONE;
  record->errMsg[0] = '\0';
}

BoolType SysErrorIsSet(const SysErrorSType* record) {
  return record->errCode != SYSERR_NONE || record->errMsg[0] != '\0';
}

const char* SysErrorGetMessage(const SysErrorSType* record) {
  return record != nullptr ? record->errMsg : nullptr;
}
