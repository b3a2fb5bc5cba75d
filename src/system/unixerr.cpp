#include <povzel/unixerr.h>

#include <netdb.h>

#include <array>
#include <cerrno>
#include <cstring>

#include <povzel/errmsg.h>
#include "basics/internal.h"

namespace {

struct Row {
  int number;
  SysErrEType code;
  const char* symbol;
};

// One name gives the number, the code and the symbol, so that they cannot drift apart.
#define ROW(name) \
  { E##name, SYSERR_##name, "unixerr.E" #name }
constexpr Row rows[] = {ROW(PERM),
                        ROW(NOENT),
                        ROW(SRCH),
                        ROW(INTR),
                        ROW(IO),
                        ROW(NXIO),
                        ROW(2BIG),
                        ROW(NOEXEC),
                        ROW(BADF),
                        ROW(CHILD),
                        ROW(AGAIN),
                        ROW(NOMEM),
                        ROW(ACCES),
                        ROW(FAULT),
                        ROW(NOTBLK),
                        ROW(BUSY),
                        ROW(EXIST),
                        ROW(XDEV),
                        ROW(NODEV),
                        ROW(NOTDIR),
                        ROW(ISDIR),
                        ROW(INVAL),
                        ROW(NFILE),
                        ROW(MFILE),
                        ROW(NOTTY),
                        ROW(TXTBSY),
                        ROW(FBIG),
                        ROW(NOSPC),
                        ROW(SPIPE),
                        ROW(ROFS),
                        ROW(MLINK),
                        ROW(PIPE),
                        ROW(DOM),
                        ROW(RANGE),
                        ROW(DEADLOCK),
                        ROW(NAMETOOLONG),
                        ROW(NOLCK),
                        ROW(NOSYS),
                        ROW(NOTEMPTY),
                        ROW(LOOP),
                        ROW(NOMSG),
                        ROW(IDRM),
                        ROW(CHRNG),
                        ROW(L2NSYNC),
                        ROW(L3HLT),
                        ROW(L3RST),
                        ROW(LNRNG),
                        ROW(UNATCH),
                        ROW(NOCSI),
                        ROW(L2HLT),
                        ROW(NOSTR),
                        ROW(NODATA),
                        ROW(TIME),
                        ROW(NOSR),
                        ROW(NONET),
                        ROW(NOPKG),
                        ROW(REMOTE),
                        ROW(NOLINK),
                        ROW(ADV),
                        ROW(SRMNT),
                        ROW(COMM),
                        ROW(PROTO),
                        ROW(MULTIHOP),
                        ROW(DOTDOT),
                        ROW(BADMSG),
                        ROW(REMCHG),
                        ROW(USERS),
                        ROW(NOTSOCK),
                        ROW(DESTADDRREQ),
                        ROW(MSGSIZE),
                        ROW(PROTOTYPE),
                        ROW(NOPROTOOPT),
                        ROW(PROTONOSUPPORT),
                        ROW(SOCKTNOSUPPORT),
                        ROW(OPNOTSUPP),
                        ROW(PFNOSUPPORT),
                        ROW(AFNOSUPPORT),
                        ROW(ADDRINUSE),
                        ROW(ADDRNOTAVAIL),
                        ROW(NETDOWN),
                        ROW(NETUNREACH),
                        ROW(NETRESET),
                        ROW(CONNABORTED),
                        ROW(CONNRESET),
                        ROW(NOBUFS),
                        ROW(ISCONN),
                        ROW(NOTCONN),
                        ROW(SHUTDOWN),
                        ROW(TOOMANYREFS),
                        ROW(TIMEDOUT),
                        ROW(CONNREFUSED),
                        ROW(HOSTDOWN),
                        ROW(HOSTUNREACH),
                        ROW(ALREADY),
                        ROW(INPROGRESS),
                        ROW(STALE),
                        ROW(UCLEAN),
                        ROW(DQUOT)};
#undef ROW

constexpr int largestErrno = EDQUOT;
constexpr int firstCode = SYSERR_HOST_NOT_FOUND;
constexpr int lastCode = SYSERR_NOPKG;

// errno to row; null where there is none.
constexpr auto rowOf = [] {
  std::array<const Row*, largestErrno + 1> table{};
  for (const Row& row : rows) table[row.number] = &row;
  return table;
}();

// Portable code to platform number, from firstCode on.
constexpr auto osErrOf = [] {
  std::array<signed char, lastCode - firstCode + 1> table{};
  table.fill(-1);
  const auto put = [&table](SysErrEType code, int number) {
    table[code - firstCode] = static_cast<signed char>(number);
  };
  for (const Row& row : rows) put(row.code, row.number);
  put(SYSERR_HOST_NOT_FOUND, HOST_NOT_FOUND);
  put(SYSERR_TRY_AGAIN, TRY_AGAIN);
  put(SYSERR_NO_RECOVERY, NO_RECOVERY);
  put(SYSERR_NO_DATA, NO_DATA);
  put(SYSERR_NO_ADDRESS, NO_ADDRESS);
  put(SYSERR_NOTSUP, ENOTSUP);
  put(SYSERR_WOULDBLOCK, EWOULDBLOCK);
  put(TVSOCKETERR_NOHOSTNAME, 0);
  return table;
}();

static_assert(std::size(rows) == 98 && osErrOf.size() == 175);

const Row* findRow(int number) {
  return number > 0 && number <= largestErrno ? rowOf[number] : nullptr;
}

SysErrEType unmapped(int number) {
  return static_cast<SysErrEType>(0U - static_cast<unsigned>(number));
}

}  // namespace

SysErrEType UnixErrOsErrToSysErr(int number, SysErrCategoryEType category) {
  if (category == SYSERRCAT_ERRNO) {
    const Row* row = findRow(number);
    return row != nullptr ? row->code : unmapped(number);
  }
  if (category == SYSERRCAT_HERRNO && number >= HOST_NOT_FOUND && number <= NO_DATA) {
    return static_cast<SysErrEType>(SYSERR_HOST_NOT_FOUND + number - HOST_NOT_FOUND);
  }
  return unmapped(number);
}

int UnixErrSysErrToOsErr(SysErrEType code) {
  return code >= firstCode && code <= lastCode ? osErrOf[code - firstCode] : -1;
}

void UnixErr(int number, char* buffer, ArraySizeType size) {
  if (size == 0) return;
  buffer[0] = '\0';
  if (number == 0 || size == 1) return;
  const ErrnoKeeper keeper;
  ErrMsgSymToText("unixerr.part1", buffer, size - 1, "d", static_cast<long>(number));

  const Row* row = findRow(number);
  if (row == nullptr) return;
  const std::size_t length = std::strlen(buffer);
  ErrMsgSymToText(row->symbol, buffer + length, size - 1 - length, nullptr);
}

void HostGetErrMsg(const HostErrSType* record, char* buffer, ArraySizeType size) {
  UnixErr(record->theErrno, buffer, size);
}
