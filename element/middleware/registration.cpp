// Process registration: one process per application name, held by a lock file in the runtime
// directory for as long as the handle lives.
#include "element/middleware/registration.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "element/middleware/handle.h"
#include "element/middleware/log.h"
#include "element/middleware/loop.h"

namespace vqmw {
namespace {

std::string& MutableAppName() {
  static std::string* name = new std::string;  // read by fault reports until the very end
  return *name;
}

// An open descriptor holding the lock on `name`, or -1 (logged).
int TakeLock(const std::string& name) {
  std::string path = RuntimeDir() + "/" + name + ".lock";
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    Logger().error("{}: cannot open the lock {}: {}", name, path, std::strerror(errno));
    return -1;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
    int err = errno;
    if (err == EWOULDBLOCK) {
      // The holder wrote its pid into the lock when it took it.
      char text[32] = {};
      const ssize_t n = pread(fd, text, sizeof text - 1, 0);
      const std::string pid = n > 0 ? std::string(text, strcspn(text, "\n")) : "";
      Logger().error("{}: registration refused: the registration lock {} is held by {}", name, path,
                     pid.empty() ? std::string("another process") : "pid " + pid);
    } else {
      Logger().error("{}: cannot lock {}: {}", name, path, std::strerror(err));
    }
    close(fd);
    return -1;
  }
  // The holder's pid, for whoever wonders which process has the name.
  std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) < 0 || pwrite(fd, pid.data(), pid.size(), 0) < 0) {
    Logger().warn("{}: cannot write the pid into {}: {}", name, path, std::strerror(errno));
  }
  return fd;
}

}  // namespace

const std::string& AppName() {
  return MutableAppName();
}

}  // namespace vqmw

extern "C" {

vqmw_t* vqmw_init(const char* app_name) {
  std::string name = app_name != nullptr ? app_name : "";
  vqmw::MutableAppName() = name;
  vqmw::ReloadLogConfig();
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
    vqmw::Logger().error("vqmw_init: invalid application name '{}'", name);
    return nullptr;
  }
  int fd = vqmw::TakeLock(name);
  if (fd < 0) return nullptr;
  auto mw = std::make_unique<vqmw_s>(name, fd);
  if (!mw->OpenLoop()) return nullptr;
  return mw.release();
}

void vqmw_finish(vqmw_t** mw) {
  if (mw == nullptr) return;
  delete *mw;
  *mw = nullptr;
}

}  // extern "C"
