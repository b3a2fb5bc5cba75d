#include <povzel/hostfname.h>

#include <dlfcn.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <povzel/hostfiles.h>
#include "basics/internal.h"
#include "internal.h"

namespace {

constexpr int mostLinks = 4095;

// A file name in the caller's buffer. Each change keeps it inside the buffer and terminated.
class Name {
 public:
  Name(char* text, std::size_t size) : text_(text), size_(size), length_(std::strlen(text)) {}

  char operator[](std::size_t index) const { return text_[index]; }
  const char* text() const { return text_; }
  std::size_t length() const { return length_; }

  // The end of the component that begins at `start`.
  std::size_t componentEnd(std::size_t start) const {
    return static_cast<std::size_t>(strchrnul(text_ + start, '/') - text_);
  }

  // Replaces [from, to) by `piece`; returns false, with nothing changed, if that does not fit.
  bool replace(std::size_t from, std::size_t to, const char* piece, std::size_t pieceLength) {
    const std::size_t newLength = length_ - (to - from) + pieceLength;
    if (newLength >= size_) return false;
    std::memmove(text_ + from + pieceLength, text_ + to, length_ - to + 1);
    std::memcpy(text_ + from, piece, pieceLength);
    length_ = newLength;
    return true;
  }

  void remove(std::size_t from, std::size_t to) { replace(from, to, "", 0); }

  // readlink of the first `end` characters.
  ssize_t readLink(std::size_t end, HostFnameStrType& target) {
    const char behind = text_[end];
    text_[end] = '\0';
    const ssize_t length = os.readlink(text_, target, sizeof target - 1);
    text_[end] = behind;
    if (length >= 0) target[length] = '\0';
    return length;
  }

 private:
  char* text_;
  std::size_t size_;
  std::size_t length_;
};

// The value of the variable whose name is the `length` characters at `variable`, or null.
const char* variableValue(const char* variable, std::size_t length) {
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, variable, length) == 0 && (*entry)[length] == '=') {
      return *entry + length + 1;
    }
  }
  return nullptr;
}

// Puts the name in `outbuf` behind a leading variable's value. Returns whether the whole name is
// there then; before, it was if `whole`.
bool substituteVariable(const char* inbuf, char* outbuf, std::size_t size, bool whole) {
  if (inbuf[0] != '$') return whole;
  const char* rest = strchrnul(inbuf, '/');
  const char* value = variableValue(inbuf + 1, static_cast<std::size_t>(rest - inbuf - 1));
  if (value == nullptr) return whole;
  const std::size_t valueLength = std::strlen(value);
  const std::size_t restLength = std::strlen(rest);
  if (valueLength + restLength >= size) return false;
  std::memmove(outbuf + valueLength, rest, restLength + 1);
  std::memcpy(outbuf, value, valueLength);  // NOLINT(bugprone-not-null-terminated-result)
  return true;
}

void makeAbsolute(Name& name) {
  if (name[0] == '$' || name[0] == '/') return;
  char directory[sizeof(HostFnameStrType) + 1];
  if (os.getcwd(directory, sizeof(HostFnameStrType)) == nullptr) return;
  const std::size_t length = std::strlen(directory);
  directory[length] = '/';
  name.replace(0, 0, directory, length + 1);
}

// Removes the ".." at [start, end), the component before it and the "/" behind it. Returns where
// the next component begins.
std::size_t removeParent(Name& name, std::size_t start, std::size_t end) {
  std::size_t from = start - 1;
  while (from > 0 && name[from - 1] != '/') --from;
  name.remove(from, name[end] == '/' ? end + 1 : end);
  return from;
}

// Where to go on after the absolute `target` has taken the place of a prefix. The first `known`
// characters, which end in "/", held no links; what the target has in common with them need not be
// looked at again.
std::size_t firstUnknown(const Name& name, std::size_t known, const char* target) {
  std::size_t same = 0;
  while (same < known && target[same] == name[same]) ++same;
  if (same < known && target[same] == '\0' && name[same] == '/') return same + 1;
  while (same > 0 && target[same - 1] != '/') --same;
  return same;
}

// Puts the link's target in place of the component at [start, end), or of the whole prefix if it is
// absolute. Returns false if the result would not fit; otherwise `start` is where to go on.
bool followLink(Name& name, std::size_t& start, std::size_t end, const char* target,
                std::size_t length) {
  if (target[0] != '/') return name.replace(start, end, target, length);
  const std::size_t next = firstUnknown(name, start, target);
  if (!name.replace(0, end, target, length)) return false;
  start = next;
  return true;
}

// Links in a circle bring the same name back until so many have been met, and each round may look
// at thousands of components. Knows the name after 1, 2, 4... links, and so a round of any length.
class Rounds {
 public:
  // Called with the name behind each of the `links`, and where the scan goes on. Returns their
  // number once all the rounds that are left whole, and change nothing, are counted too.
  int counted(const Name& name, std::size_t start, int links) {
    const std::size_t length = name.length();
    if (length == length_ && start == start_ && std::strncmp(name.text(), text_, length) == 0) {
      const int round = links - links_;
      return links + (mostLinks - 1 - links) / round * round;
    }
    if (length < sizeof text_ && std::has_single_bit(static_cast<unsigned int>(links))) {
      std::memcpy(text_, name.text(), length);
      length_ = length;
      start_ = start;
      links_ = links;
    }
    return links;
  }

 private:
  HostFnameStrType text_;
  std::size_t length_ = SIZE_MAX;
  std::size_t start_ = 0;
  int links_ = 0;
};

// The component that was last found to be no link: "a/../a/../" asks once. Only a link's target may
// change what stands before it; then it is forgotten.
class Settled {
 public:
  bool is(std::size_t start, const char* component, std::size_t length) const {
    return start == start_ && length == length_ && std::strncmp(component, text_, length) == 0;
  }
  void forget() { start_ = SIZE_MAX; }
  void set(std::size_t start, const char* component, std::size_t length) {
    start_ = length <= sizeof text_ ? start : SIZE_MAX;
    length_ = length;
    if (length <= sizeof text_) std::memcpy(text_, component, length);
  }

 private:
  char text_[NAME_MAX];
  std::size_t length_ = 0;
  std::size_t start_ = SIZE_MAX;
};

// Removes "." and ".." and follows links. `start` only moves past components that are settled, so
// that no prefix is read twice; the outcome is that of starting again after each change.
void resolveComponents(Name& name, bool followLinks) {
  HostFnameStrType target;
  Rounds rounds;
  Settled settled;
  int links = 0;
  std::size_t start = 0;
  while (start <= name.length()) {
    const std::size_t end = name.componentEnd(start);
    const std::size_t length = end - start;
    const char* component = name.text() + start;
    if (start > 0 && length == 1 && component[0] == '.') {
      name.remove(start - 1, end);
      continue;
    }
    if (start > 0 && end >= 4 && length == 2 && component[0] == '.' && component[1] == '.') {
      start = removeParent(name, start, end);
      continue;
    }
    // The prefix of an empty component ends in "/", so it names no link.
    if (followLinks && length > 0 && !settled.is(start, component, length)) {
      const ssize_t targetLength = name.readLink(end, target);
      if (targetLength >= 0) {
        if (++links == mostLinks) return;
        if (!followLink(name, start, end, target, static_cast<std::size_t>(targetLength))) return;
        links = rounds.counted(name, start, links);
        settled.forget();
        continue;
      }
      settled.set(start, component, length);
    }
    start = end + 1;
  }
}

void markDirectory(Name& name) {
  if (name.length() == 0 || name[name.length() - 1] == '/') return;
  if (HostFileType(name.text(), nullptr) != HOST_FILE_KIND_DIR) return;
  name.replace(name.length(), name.length(), "/", 1);
}

// Expands `inbuf` into the `size` bytes at `outbuf`, at least one. Returns false when the name was
// cut, or its variable's value left out, because there was no room.
bool expand(const char* inbuf, char* outbuf, std::size_t size, bool followLinks) {
  const bool empty = inbuf[0] == '\0';
  const std::size_t length = strnlen(inbuf, size - 1);
  const bool whole = inbuf[length] == '\0';
  std::memmove(outbuf, inbuf, length);
  outbuf[length] = '\0';
  if (empty) return true;

  const bool complete = substituteVariable(inbuf, outbuf, size, whole);
  Name name(outbuf, size);
  makeAbsolute(name);
  resolveComponents(name, followLinks);
  if (followLinks) markDirectory(name);
  return complete;
}

void removeAutoMountPrefix(char* name) {
  if (autoMountPrefix[0] == '\0') return;
  const std::size_t length = std::strlen(autoMountPrefix);
  if (std::strncmp(name, autoMountPrefix, length) != 0 || name[length] != '/') return;
  std::memmove(name, name + length, std::strlen(name + length) + 1);
}

}  // namespace

bool hostExpandFileName(const char* name, HostFnameStrType& expanded,
                        bool disableSoftLinkExpansion) {
  if (!expand(name, expanded, sizeof expanded, !disableSoftLinkExpansion)) {
    errno = ENAMETOOLONG;
    return false;
  }
  removeAutoMountPrefix(expanded);
  return true;
}

void HostUnixExpandFileName(const char* inbuf, char* outbuf, ArraySizeType outbufLength) {
  if (outbufLength > 0) expand(inbuf, outbuf, outbufLength, true);
}

void HostExpandFileName(const char* inbuf, char* outbuf, ArraySizeType outbufLength) {
  if (outbufLength == 0) return;
  expand(inbuf, outbuf, outbufLength, true);
  removeAutoMountPrefix(outbuf);
}

void HostTempFileSpec(char* buff, std::size_t buffSize) {
  if (buffSize == 0) return;
  buff[0] = '\0';
  HostFnameStrType directory;
  HostExpandFileName("/usr/tmp", directory, sizeof directory);
  // Looked up, because each program that links to tempnam itself gets a warning. Our callers want a
  // name and no file.
  using Tempnam = char*(const char* directory, const char* prefix);
  auto* tempnamOfLibrary = reinterpret_cast<Tempnam*>(dlsym(RTLD_DEFAULT, "tempnam"));
  char* name = tempnamOfLibrary != nullptr ? tempnamOfLibrary(directory, nullptr) : nullptr;
  if (name == nullptr) return;
  const std::size_t length = std::strlen(name);
  if (length < buffSize) std::memcpy(buff, name, length + 1);
  std::free(name);
}
