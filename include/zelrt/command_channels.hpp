// Where command channels lie by convention, and how a collector answers a command: what collectors
// and controllers agree on besides zelrt/command.h. Header only: nothing of the library is linked.
//
//   $XDG_RUNTIME_DIR/zelrt/            or /tmp/zelrt-UID/; the user's own, mode 0700
//     heapscope.Xu3k9q/                one directory for each process, made by mkdtemp
//       ulvcmds.dat                    the channel's lock file
//       answer.31415                   an answer that its controller has not fetched yet
//
// A command that wants an answer carries a ticket, which is not 0, as fifth argument. The answer is
// a file, put in place by rename: the line "ok" or "error", then any text. The controller removes
// it; whoever removes the directory removes answers that nobody fetched.
//
// Any thread may call any of these. Nothing throws but the allocation of strings. What returns a
// bool leaves the reason in errno.
#ifndef ZELRT_COMMAND_CHANNELS_HPP
#define ZELRT_COMMAND_CHANNELS_HPP

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace zelrt {

// The directory of the user's channels; it need not exist.
inline std::string ChannelsDirectory() {
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') return std::string(runtime) + "/zelrt";
  return "/tmp/zelrt-" + std::to_string(geteuid());
}

// Whether it is a directory, not a link to one, that nobody but the user can look into. Anything
// else under that name may be a trap of another user.
inline bool IsPrivateDirectory(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return false;
  const bool isPrivate =
      S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & 0777) == S_IRWXU;
  if (!isPrivate) errno = EPERM;
  return isPrivate;
}

// Makes a new directory NAME.XXXXXX for this process's channel, and the directory above it where
// that is missing. The name is the collector's, without '/'.
inline bool MakeChannelDirectory(const std::string& name, std::string& directory) {
  const std::string above = ChannelsDirectory();
  if (mkdir(above.c_str(), S_IRWXU) != 0 && errno != EEXIST) return false;
  if (!IsPrivateDirectory(above)) return false;
  directory = above + "/" + name + ".XXXXXX";
  return mkdtemp(directory.data()) != nullptr;
}

inline std::string AnswerPath(const std::string& directory, int32_t ticket) {
  return directory + "/answer." + std::to_string(ticket);
}

// The collector's side: answers the command with that ticket. An earlier answer is replaced.
inline bool PutAnswer(const std::string& directory, int32_t ticket, bool isOk,
                      std::string_view text) {
  const std::string path = AnswerPath(directory, ticket);
  const std::string temporary = directory + "/.answer." + std::to_string(ticket);
  unlink(temporary.c_str());
  const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file == -1) return false;
  std::string left = isOk ? "ok\n" : "error\n";
  left += text;
  for (size_t done = 0; done < left.size();) {
    const ssize_t put = write(file, left.data() + done, left.size() - done);
    if (put >= 0) {
      done += static_cast<size_t>(put);
    } else if (errno != EINTR) {
      const int reason = errno;
      close(file);
      unlink(temporary.c_str());
      errno = reason;
      return false;
    }
  }
  close(file);
  return rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace zelrt

#endif
