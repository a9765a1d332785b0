// Atomic replacement of a file: temporary file, rename.
#include "element/pbr/atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace pbr {

bool WriteFileAtomically(const std::string& path, const std::function<bool(std::string*)>& fill,
                         std::string* error) {
  std::string tmp = path + ".tmp";
  auto fail = [&](const char* step, int fd) {
    *error = std::string(step) + " " + tmp + ": " + std::strerror(errno);
    if (fd >= 0) close(fd);
    unlink(tmp.c_str());
    return false;
  };

  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return fail("cannot create", -1);
  std::string part;
  for (bool more = true; more;) {
    part.clear();
    more = fill(&part);
    for (std::string_view rest = part; !rest.empty();) {
      ssize_t n = write(fd, rest.data(), rest.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return fail("cannot write", fd);
      rest.remove_prefix(static_cast<size_t>(n));
    }
  }
  if (close(fd) < 0) return fail("cannot close", -1);
  if (std::rename(tmp.c_str(), path.c_str()) < 0) return fail("cannot rename", -1);
  return true;
}

}  // namespace pbr
