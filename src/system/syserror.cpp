#include <povzel/syserror.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <povzel/unixerr.h>
#include "basics/internal.h"

namespace {

// A text in a record's field, with the room behind it.
class Message {
 public:
  explicit Message(char (&field)[4096]) : field_(field), length_(0) {}

  void format(const char* format, std::va_list arguments) {
    const int wanted = std::vsnprintf(field_, sizeof field_, format, arguments);
    length_ = std::min(static_cast<std::size_t>(std::max(wanted, 0)), sizeof field_ - 1);
    field_[length_] = '\0';
  }

  void append(const char* text) {
    const std::size_t length = std::min(std::strlen(text), room() - 1);
    std::memcpy(end(), text, length);
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

  Message message(record->errMsg);
  std::va_list arguments;
  va_start(arguments, format);
  message.format(format, arguments);
  va_end(arguments);

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
