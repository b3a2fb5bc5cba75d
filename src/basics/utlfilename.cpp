#include <povzel/utlfilename.h>

#include <cstring>

char* UtlFnGetPathPtr(char* name) {
  return std::strchr(name, '/') != nullptr ? name : name + std::strlen(name);
}

char* UtlFnGetNamePtr(char* name) {
  char* slash = std::strrchr(name, '/');
  return slash != nullptr ? slash + 1 : name;
}

char* UtlFnGetExtensionPtr(char* name) {
  char* namePart = UtlFnGetNamePtr(name);
  char* dot = std::strrchr(namePart, '.');
  return dot != nullptr ? dot : namePart + std::strlen(namePart);
}

char* UtlBasename(char* name) {
  char* extension = UtlFnGetExtensionPtr(name);
  if (*extension != '\0') *extension = '\0';
  return UtlFnGetNamePtr(name);
}
