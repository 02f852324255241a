// Streams of the C library.

#include <cerrno>
#include <cstdio>

#include "files/internal.h"
#include "zelrt/files.h"

namespace zelrt {
namespace {

FILE* Open(const char* path, const char* mode, int* error) {
  FILE* stream = nullptr;
  if (path != nullptr && mode != nullptr) {
    stream = std::fopen(path, mode);
  } else {
    errno = EINVAL;
  }
  if (error != nullptr) *error = errno;
  return stream;
}

// The stream sits on a standard descriptor: opens the file again, elsewhere.
FILE* OpenElsewhere(FILE* stream, const char* path, const char* mode, int* error) {
  FILE* second = nullptr;
  {
    const StandardDescriptorsTaken taken(fileno(stream));
    if (taken.AreAll()) second = Open(path, mode, error);
  }
  std::fclose(stream);
  return second;
}

}  // namespace
}  // namespace zelrt

using namespace zelrt;

FILE* __ZelFopen(const char* path, const char* mode, int* error) {
  FILE* const stream = Open(path, mode, error);
  if (stream == nullptr || !IsStandardDescriptor(fileno(stream))) return stream;
  return OpenElsewhere(stream, path, mode, error);
}

FILE* __ZelWFopen(const wchar_t* path, const wchar_t* mode, int* error) {
  char* const narrowPath = __ZelAllocateAndConvertWstringToUtf8(path);
  char* const narrowMode = __ZelAllocateAndConvertWstringToUtf8(mode);
  FILE* stream = nullptr;
  if (narrowPath != nullptr && narrowMode != nullptr) stream = Open(narrowPath, narrowMode, error);
  __ZelFreeMbString(narrowPath);
  __ZelFreeMbString(narrowMode);
  return stream;
}

int __ZelFclose(FILE* stream) { return std::fclose(stream); }
char* __ZelFgets(char* buffer, int size, FILE* stream) { return std::fgets(buffer, size, stream); }
long __ZelFtell(FILE* stream) { return std::ftell(stream); }
int __ZelFflush(FILE* stream) { return std::fflush(stream); }
size_t __ZelFread(void* buffer, size_t size, size_t count, FILE* stream) {
  return std::fread(buffer, size, count, stream);
}
size_t __ZelFwrite(const void* buffer, size_t size, size_t count, FILE* stream) {
  return std::fwrite(buffer, size, count, stream);
}
int __ZelFseek(FILE* stream, long offset, int whence) { return std::fseek(stream, offset, whence); }

int __ZelFprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = std::vfprintf(stream, format, arguments);
  va_end(arguments);
  return result;
}
