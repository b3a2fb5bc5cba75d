// System errors: the two records in which the library describes a failure of the operating system.
//
//   SysErrorSType err;
//   SysErrorClear(&err);
//   if (open(name, O_RDONLY) < 0) SysErrorSet(&err, errno, "open(%s)", name);
//   if (SysErrorIsSet(&err)) puts(SysErrorGetMessage(&err));  // open(x): and the system's reason
//
// HostErrSType holds the raw number alone; SysErrorSType adds a code that means the same on every
// platform of the product, and a text. The module keeps no state; a record belongs to its caller.
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

// A failure as the platform numbers it.
typedef struct HostErrSType {
  int32_t theErrno;  // errno right after the failing call
  uint32_t apiret;   // other platforms' return code; not used here
} HostErrSType;

// Portable error codes. Processes exchange these numbers, so codes that this platform never
// produces keep their places.
POVZEL_ENUM_TYPE(SysErrEType, int32_t);
enum POVZEL_ENUM(SysErrEType, int32_t) {
  SYSERR_NONE = 0,
  SYSERR_UNKNOWN = 1,
  SYSERR_HOST_NOT_FOUND = 2,
  SYSERR_TRY_AGAIN = 3,
  SYSERR_NO_RECOVERY = 4,
  SYSERR_NO_DATA = 5,
  SYSERR_NO_ADDRESS = 6,
  SYSERR_NETDOWN = 7,
  SYSERR_NETUNREACH = 8,
  SYSERR_NETRESET = 9,
  SYSERR_CONNABORTED = 10,
  SYSERR_CONNRESET = 11,
  SYSERR_NOBUFS = 12,
  SYSERR_ISCONN = 13,
  SYSERR_NOTCONN = 14,
  SYSERR_SHUTDOWN = 15,
  SYSERR_TIMEDOUT = 16,
  SYSERR_CONNREFUSED = 17,
  SYSERR_NAMETOOLONG = 18,
  SYSERR_INTR = 19,
  SYSERR_INPROGRESS = 20,
  SYSERR_INVAL = 21,
  SYSERR_ALREADY = 22,
  SYSERR_NOTSOCK = 23,
  SYSERR_DESTADDRREQ = 24,
  SYSERR_MSGSIZE = 25,
  SYSERR_PROTOTYPE = 26,
  SYSERR_NOPROTOOPT = 27,
  SYSERR_PROTONOSUPPORT = 28,
  SYSERR_SOCKTNOSUPPORT = 29,
  SYSERR_OPNOTSUPP = 30,
  SYSERR_NOTSUP = 31,
  SYSERR_PFNOSUPPORT = 32,
  SYSERR_AFNOSUPPORT = 33,
  SYSERR_ADDRINUSE = 34,
  SYSERR_ADDRNOTAVAIL = 35,
  SYSERR_WOULDBLOCK = 36,
  SYSERR_BADF = 37,
  SYSERR_AGAIN = 38,
  SYSERR_NOMEM = 39,
  SYSERR_ACCES = 40,
  SYSERR_FAULT = 41,
  SYSERR_PIPE = 42,
  SYSERR_HOSTDOWN = 43,
  SYSERR_HOSTUNREACH = 44,
  SYSERR_NONET = 45,
  SYSERR_WSANOTINITIALISED = 46,
  SYSERR_NOSR = 47,
  SYSERR_PROTO = 48,
  SYSERR_NXIO = 49,
  SYSERR_WSAEINTR = 50,
  SYSERR_MFILE = 51,
  SYSERR_NFILE = 52,
  TVSOCKETERR_NOHOSTNAME = 53,
  SYSERR_BUSY = 54,
  SYSERR_NOTBLK = 55,
  SYSERR_SPIPE = 56,
  SYSERR_MULTIHOP = 57,
  SYSERR_NOCONNECT = 58,
  SYSERR_BADCONNECT = 59,
  SYSERR_DIST = 60,
  SYSERR_ZERO = 61,
  SYSERR_BADMODE = 62,
  SYSERR_BADNAME = 63,
  SYSERR_ISTEMPMEM = 64,
  SYSERR_BADSHARE = 65,
  SYSERR_BUFMODE = 66,
  SYSERR_ERRSET = 67,
  SYSERR_ISOPEN = 68,
  SYSERR_NOTEXIST = 69,
  SYSERR_NOTINIT = 70,
  SYSERR_NULLFCB = 71,
  SYSERR_SMALLBF = 72,
  SYSERR_NOGEN = 73,
  SYSERR_NOSEEK = 74,
  SYSERR_BADPOS = 75,
  SYSERR_BADSEEK = 76,
  SYSERR_NOCMD = 77,
  SYSERR_GETANDPUT = 78,
  SYSERR_PASTEOF = 79,
  SYSERR_NOTREAD = 80,
  SYSERR_TOOMANYUNGETC = 81,
  SYSERR_TOOMANYREFS = 82,
  SYSERR_UNGETEOF = 83,
  SYSERR_PUTUNGET = 84,
  SYSERR_BADTYPE = 85,
  SYSERR_NOTWRITE = 86,
  SYSERR_PUTANDGET = 87,
  SYSERR_LARGEBF = 88,
  SYSERR_MATH = 89,
  SYSERR_MODNAME = 90,
  SYSERR_MAXATTR = 91,
  SYSERR_READERROR = 92,
  SYSERR_BADATTR = 93,
  SYSERR_OS2ERR = 94,
  SYSERR_PERM = 95,
  SYSERR_NOENT = 96,
  SYSERR_SRCH = 97,
  SYSERR_IO = 98,
  SYSERR_2BIG = 99,
  SYSERR_NOEXEC = 100,
  SYSERR_CHILD = 101,
  SYSERR_EXIST = 102,
  SYSERR_XDEV = 103,
  SYSERR_NODEV = 104,
  SYSERR_NOTDIR = 105,
  SYSERR_ISDIR = 106,
  SYSERR_NOTTY = 107,
  SYSERR_TXTBSY = 108,
  SYSERR_FBIG = 109,
  SYSERR_NOSPC = 110,
  SYSERR_ROFS = 111,
  SYSERR_MLINK = 112,
  SYSERR_SOCEOS2ERR = 113,
  SYSERR_DOM = 114,
  SYSERR_RANGE = 115,
  SYSERR_UCLEAN = 116,
  SYSERR_NOTNAM = 117,
  SYSERR_NAVAIL = 118,
  SYSERR_ISNAM = 119,
  SYSERR_REMOTEIO = 120,
  SYSERR_INIT = 121,
  SYSERR_REMDEV = 122,
  SYSERR_NOMSG = 123,
  SYSERR_IDRM = 124,
  SYSERR_CHRNG = 125,
  SYSERR_L2NSYNC = 126,
  SYSERR_L3HLT = 127,
  SYSERR_L3RST = 128,
  SYSERR_LNRNG = 129,
  SYSERR_UNATCH = 130,
  SYSERR_NOCSI = 131,
  SYSERR_L2HLT = 132,
  SYSERR_NOTREADY = 133,
  SYSERR_WRPROTECT = 134,
  SYSERR_FORMAT = 135,
  SYSERR_NOLCK = 136,
  SYSERR_BADE = 137,
  SYSERR_BADR = 138,
  SYSERR_XFULL = 139,
  SYSERR_NOANO = 140,
  SYSERR_BADRQC = 141,
  SYSERR_BADSLT = 142,
  SYSERR_BFONT = 143,
  SYSERR_LOOP = 144,
  SYSERR_OVERFLOW = 145,
  SYSERR_NOTUNIQ = 146,
  SYSERR_BADFD = 147,
  SYSERR_LIBACC = 148,
  SYSERR_LIBBAD = 149,
  SYSERR_LIBSCN = 150,
  SYSERR_LIBMAX = 151,
  SYSERR_LIBEXEC = 152,
  SYSERR_ILSEQ = 153,
  SYSERR_RESTART = 154,
  SYSERR_STRPIPE = 155,
  SYSERR_IORESID = 156,
  SYSERR_NOTEMPTY = 157,
  SYSERR_PROCLIM = 158,
  SYSERR_USERS = 159,
  SYSERR_DQUOT = 160,
  SYSERR_STALE = 161,
  SYSERR_REMOTE = 162,
  SYSERR_DEADLOCK = 163,
  SYSERR_NOSTR = 164,
  SYSERR_NODATA = 165,
  SYSERR_TIME = 166,
  SYSERR_BADMSG = 167,
  SYSERR_RREMOTE = 168,
  SYSERR_NOLINK = 169,
  SYSERR_ADV = 170,
  SYSERR_SRMNT = 171,
  SYSERR_COMM = 172,
  SYSERR_DOTDOT = 173,
  SYSERR_REMCHG = 174,
  SYSERR_NOSYS = 175,
  SYSERR_NOPKG = 176,
  SYSERR_NOSYM = 177,
  SYSERR_REMOTERELEASE = 178,
};

// What numbers UnixErrOsErrToSysErr is given.
POVZEL_ENUM_TYPE(SysErrCategoryEType, int32_t);
enum POVZEL_ENUM(SysErrCategoryEType, int32_t) {
  SYSERRCAT_ERRNO = 0,   // errno
  SYSERRCAT_HERRNO = 1,  // the resolver's h_errno
};

// A failure with its portable code and its text.
typedef struct SysErrorSType {
  int32_t hostError;    // the number given to SysErrorSet: 0 when there was none, -1 to omit it
  SysErrEType errCode;  // SYSERR_NONE when clear; minus the errno when it has no portable code
  char errMsg[4096];    // terminated

#ifdef __cplusplus
  // Sets errCode from an errno value; the other fields stay.
  POVZEL_EXPORT void setErr(int errnoValue);
#endif
} SysErrorSType;

POVZEL_STATIC_ASSERT(sizeof(HostErrSType) == 8, "the layout of HostErrSType has changed");
POVZEL_STATIC_ASSERT(offsetof(SysErrorSType, errCode) == 4 && offsetof(SysErrorSType, errMsg) == 8,
                     "the layout of SysErrorSType has changed");
POVZEL_STATIC_ASSERT(sizeof(SysErrorSType) == 4104, "the layout of SysErrorSType has changed");

POVZEL_BEGIN_C

// Fills `record` (null: nothing happens) with the printf text of `format`, cut to 4,095 characters;
// the record's present text may be among the arguments.
//   hostError 0:  SYSERR_NONE, and ": failed with no error code" behind the text
//   hostError -1: SYSERR_NONE, and the text alone
//   otherwise:    the number's portable code, and ": " with its UnixErr text behind the text
// errno is left as it was.
POVZEL_EXPORT void SysErrorSet(SysErrorSType* record, long hostError, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Sets the code to SYSERR_NONE and the text to the empty string; hostError stays.
POVZEL_EXPORT void SysErrorClear(SysErrorSType* record);

// Returns 1 if `record` has a code or a text, else 0.
POVZEL_EXPORT BoolType SysErrorIsSet(const SysErrorSType* record);

// Returns the text inside `record`, or null for a null record.
POVZEL_EXPORT const char* SysErrorGetMessage(const SysErrorSType* record);

POVZEL_END_C
