#include "element/mgmt/running_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace pbr::mgmt {
namespace {

std::string Errno(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

}  // namespace

std::string StateDir() {
  const char* dir = std::getenv("PBR_ELEMENT_STATE_DIR");
  return dir && *dir ? dir : "/var/lib/pbr-element";
}

RunningFile::RunningFile(std::string dir) : dir_(std::move(dir)), path_(dir_ + "/running.json") {}

std::optional<std::string> RunningFile::Read(std::string* error) const {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) *error = Errno("cannot open " + path_);
    return std::nullopt;
  }
  std::string text;
  char buf[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      text.append(buf, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      *error = Errno("cannot read " + path_);
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);
  return text;
}

bool RunningFile::Write(std::string_view text, std::string* error) const {
  std::error_code ec;
  std::filesystem::create_directories(dir_, ec);
  if (ec) {
    *error = "cannot create " + dir_ + ": " + ec.message();
    return false;
  }
  const std::string tmp = path_ + ".tmp";
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
  if (fd < 0) {
    *error = Errno("cannot create " + tmp);
    return false;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error = Errno("cannot write " + tmp);
      ::close(fd);
      ::unlink(tmp.c_str());
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0) {
    *error = Errno("cannot sync " + tmp);
    ::close(fd);
    ::unlink(tmp.c_str());
    return false;
  }
  ::close(fd);
  if (::rename(tmp.c_str(), path_.c_str()) != 0) {
    *error = Errno("cannot rename " + tmp);
    ::unlink(tmp.c_str());
    return false;
  }
  // The rename itself is durable only once the directory is synced.
  const int dirFd = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return true;
}

}  // namespace pbr::mgmt
