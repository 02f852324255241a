// Paths and folders, on standard strings. Nothing here throws but the strings' own allocation; on
// failure errno is as the system left it. Any thread may make any call.
#ifndef ZELRT_PATHS_HPP
#define ZELRT_PATHS_HPP

#include <string>

#include "zelrt/base.h"

namespace zelrt {

enum ZELFACCESSMODE : uint32_t {
  ZELFACCESS_EXIST = 0,  // also any value that is not listed
  ZELFACCESS_READ = 1,
  ZELFACCESS_WRITE = 2,
  ZELFACCESS_READWRITE = 3
};

// Whether the process has that access. An empty path has none, here and below.
ZEL_API bool CheckFileAccess(const std::string& path, ZELFACCESSMODE mode);

// Creates one folder, with the mode that the umask leaves of 0777. True also when there is
// something of that name already, whatever it is.
ZEL_API bool CreateFolder(const std::string& path);

// Removes an empty folder.
ZEL_API bool DeleteFolder(const std::string& path);

// Whether there is something of that name, after one '/' or '\' at its end was removed: so "/" does
// not exist. What cannot be looked at, for other reasons than that it or a folder above is missing
// or closed to us, or that the name is too long, is taken to exist.
ZEL_API bool FolderExists(std::string path);

// The path with each run of '/' made a single one, up to its first NUL.
ZEL_API std::string SanitizePath(const std::string& path);

// What stands before the last '/': empty when there is none, or when it is the first character.
ZEL_API std::string GetFolderName(const std::string& path);

// What follows the last '/', a leading one included: the whole path when there is none.
ZEL_API std::string GetBaseName(const std::string& path);

// The executable that this process runs, or empty when the system does not say.
ZEL_API std::string GetExecutableFilePath();

}  // namespace zelrt

#endif
