// Users: who runs this process, who has logged in, whose password it is.
//
// Names come from the host's password database. Any thread may call, at any time but in a signal
// handler; many may ask for different users at once.
//
// Sources: hostusers.cpp, hostlogin.cpp (the login user), hostpassword.cpp (passwords).
#pragma once

#include <stddef.h>

#include <povzel/povzeltypes.h>

POVZEL_BEGIN_C

// Returns the real user's name, at most 39 characters, in a static buffer that each call
// puts right again: where threads share it, none may write there. The database is asked until it
// has answered once; when it does not, a line on standard error says so and the name is "FORGED
// USER".
POVZEL_EXPORT char* HostGetUserName(void);

// Stores the home directory of `userName` with a "/" behind it in `result`, a HostFnameStrType.
// Returns 1; or 0 with the current directory in `result` when there is no such user or the
// directory does not fit.
POVZEL_EXPORT BoolType HostGetHomeDir(const char* userName, char* result);

// Stores the ids and names of the real, the effective and the login user (see below). Names are
// cut to their buffers, whose sizes include the terminator; a user without a name is "unknown
// user".
POVZEL_EXPORT void HostGetUserInfo(int* ruid, int* euid, int* luid, char* runame, size_t runameSz,
                                   char* euname, size_t eunameSz, char* luname, size_t lunameSz);

// Stores id and name of the user who has logged in: as the kernel has recorded it, else as the
// terminal's login record says, else as $TV_LOGIN_NAME says. Returns 1; or 0 with *luid -1. With
// $TV_DEBUG_LOGIN_USER set, "[Debug]" lines on standard output tell how it was found.
POVZEL_EXPORT BoolType HostGetLoginUserInfo(int* luid, char* luname, size_t lunameSz);

// Returns 1 if the effective user is root.
POVZEL_EXPORT BoolType HostIsSuperUser(void);

// Returns 1 if `userName` is one of the product's administrators, "SystemUser" and "DataCurator".
POVZEL_EXPORT BoolType HostUserSysAdmin(const char* userName);

// Checks `password` against the host account `userName`. Returns 1 if it is right; otherwise 0
// with the reason in `errBuf`, which holds `errBufSize` bytes and may be null. *pwToken becomes 0.
//
// The C library's libcrypt.so.1 or .so.2 is loaded by the first check; without either every check
// fails and the reason says so. Shadow entries can be read by root only. Hashes and what they are
// made of are wiped from the memory of the check; `password` is the caller's to wipe.
POVZEL_EXPORT BoolType HostValidatePassword(const char* userName, const char* password,
                                            long* pwToken, char* errBuf, ArraySizeType errBufSize);

POVZEL_END_C
