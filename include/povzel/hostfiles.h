// Files and directories: thin operations that report failures in the caller's record.
//
//   HostErrSType why;
//   FILE* log = HostOpenFile("$HOME/x.log", "a", &why, 1);
//   if (log == NULL) ...  // why.theErrno says
//
// Where not said otherwise, names are expanded first (see hostfname.h). `userFile` true makes an
// operation work under the process's real ids: until it returns they are the effective ones of the
// calling thread alone. When the system refuses them, or would refuse to let the thread come back
// to its saved ids, nothing is done, and errno is EPERM. Error records may be null. Every
// descriptor opened here is closed by exec. Nothing is printed.
//
// A name that is longer than 4,095 characters, or becomes so by its leading variable, is refused
// with ENAMETOOLONG. Files may have any inode number and date, and, but for HostOpen, any size.
//
// Any thread may call these functions at any time, as long as none changes the process's ids
// (hostids.h) or environment. But HostRemoveFile with "*" or "?" is for one thread at a time, and
// for none while another runs a command: the signals that HostSpawn ignores for it (hostspawn.h)
// are the whole process's, and of two that put them back at once one puts back what the other has
// set.
//
// Sources: hostfiles.cpp, hostfileio.cpp (descriptors and streams), hostdirectory.cpp
// (HostDirectory).
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <povzel/povzeltypes.h>
#include <povzel/syserror.h>

// What a file is.
POVZEL_ENUM_TYPE(HostFileKindEType, int32_t);
enum POVZEL_ENUM(HostFileKindEType, int32_t) {
  HOST_FILE_KIND_FILE = 0,
  HOST_FILE_KIND_DIR = 1,
  HOST_FILE_KIND_CHRDEVICE = 2,
  HOST_FILE_KIND_BLKDEVICE = 3,
  HOST_FILE_KIND_LNK = 4,
  HOST_FILE_KIND_OTHER = 5,
  HOST_FILE_KIND_ERROR = 6,
};

// Called for each directory entry; `separator` is "/". The result is ignored.
typedef int HostDirFType(const char* directory, const char* entry, const char* separator,
                         void* clientData);

POVZEL_BEGIN_C

// Opens the stream `fileName` with the fopen64 mode `openMode`. Returns null with errno in
// `fileErr` when that fails.
POVZEL_EXPORT FILE* HostOpenFile(const char* fileName, const char* openMode, HostErrSType* fileErr,
                                 BoolType userFile);

// open, which refuses files of 2 GiB and more with EOVERFLOW, and open64 of `name`, which is not
// expanded; `mode` counts when `flags` create the file. An interrupted call is made again unless a
// termination request is pending. Returns the descriptor, or -1 with errno set.
POVZEL_EXPORT int HostOpen(const char* name, int flags, int mode);
POVZEL_EXPORT int HostOpen64(const char* name, int flags, int mode);

// Asks whether `fileName` exists, its symbolic links not expanded, and how large it is. Where the
// effective ids are denied access, the real ids try too. As links are not expanded, "dir/../x" is x
// beside dir even where dir is a link; HostOpenFile looks beside the link's target.
//
// Returns 1 with the low 32 bits of the size in `*size`. Otherwise returns 0 with the first errno
// in `hostErr`. `*exists` becomes 0 when that is ENOENT, else 1; so a file that cannot be looked at
// counts as existing. `size` and `exists` may be null.
POVZEL_EXPORT BoolType HostFileExistSize(const char* fileName, unsigned long* size,
                                         BoolType* exists, HostErrSType* hostErr);

// Returns 1 if `fileName` can be looked at, else 0 with errno in `hostErr`.
POVZEL_EXPORT BoolType HostFileExist(const char* fileName, HostErrSType* hostErr);

// Returns what kind of file `filename` is; the name is not expanded and links are followed, so
// HOST_FILE_KIND_LNK never results. HOST_FILE_KIND_ERROR comes with errno in `hostErr`.
POVZEL_EXPORT HostFileKindEType HostFileType(const char* filename, HostErrSType* hostErr);

// Removes one file, or one symbolic link itself. As links are not expanded, "dir/../x" is x beside
// dir even where dir is a link: another file than the one that HostOpenFile opens. Returns 1, or 0
// with errno in `theErr`. A name with "*" or "?" is refused with ENOENT.
POVZEL_EXPORT BoolType HostRemoveSingleFile(const char* filename, BoolType userFile,
                                            HostErrSType* theErr);

// The same, but a name with "*" or "?" goes, not expanded and not quoted, by HostSpawn to the shell
// command "rm -f %s"; the result is then 1 if that succeeded. A name longer than 4,095 characters
// is not given to the shell: the result is 0, with ENAMETOOLONG in errno.
POVZEL_EXPORT BoolType HostRemoveFile(const char* filename, BoolType userFile);

// Creates the directory `name`, open to all as far as the umask lets, or removes it if it is empty.
// Return 1, or 0 with errno in `hostErr`.
POVZEL_EXPORT BoolType HostCreateDirectory(const char* name, HostErrSType* hostErr);
POVZEL_EXPORT BoolType HostRemoveDirectory(const char* name, HostErrSType* hostErr);

// Calls `callback` with `clientData` for each entry ("." and ".." too) of a directory that matches
// a pattern (see UtlGlob), in the file system's order.
//
// The last "/" of the expanded `wildcardSpec` that no backslash precedes parts directory and
// pattern; "/" alone is the root. With nothing behind it, or without any, the pattern is "*".
// Returns 1, also when the directory cannot be read or its name does not fit.
POVZEL_EXPORT BoolType HostDirectory(const char* wildcardSpec, HostDirFType* callback,
                                     void* clientData);

// Read or write exactly `numBytes` bytes. An interrupted call goes on unless a termination request
// is pending. Return 1, or 0 for a null buffer, a negative descriptor, a count below 1, end of file
// and any failure; each failed system call puts its errno into `*errnoPtr`, which may be null.
POVZEL_EXPORT BoolType HostReadFile(int fd, ByteType* dest, int numBytes, int* errnoPtr);
POVZEL_EXPORT BoolType HostWriteFile(int fd, ByteType* src, int numBytes, int* errnoPtr);

// Store the stream's position, or go to the position `*filePos`. A long holds none from 2 GiB on:
// there Hostftell stores -1 with EOVERFLOW in errno, as it does with another errno for a stream
// that has no position. Hostfseek tells nothing of a failure but errno; the stream then stays where
// it was.
POVZEL_EXPORT void Hostftell(FILE* filePtr, long* filePos);
POVZEL_EXPORT void Hostfseek(FILE* filePtr, const long* filePos);

// Returns the index of the first byte equal to `target` among the `length` bytes at `aStr`, or -1.
POVZEL_EXPORT int HostSearchBytes(const ByteType* aStr, ByteType target, ArraySizeType length);

// Does nothing on this platform.
POVZEL_EXPORT void HostResetIo(void);

POVZEL_END_C
