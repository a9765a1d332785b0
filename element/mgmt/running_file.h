// The running configuration on disk: $PBR_ELEMENT_STATE_DIR/running.json. Written as a whole
// to a temporary file that is synced and renamed over the old one, so that a crash at any
// moment leaves either the old or the new configuration.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pbr::mgmt {

class RunningFile {
 public:
  // `dir` is created (with its parents) on first write.
  explicit RunningFile(std::string dir);

  // The stored text; nullopt when there is none yet. Sets *error when the file exists but
  // cannot be read.
  std::optional<std::string> Read(std::string* error) const;

  // Stores `text`; false with *error when any step fails (the old file then stays).
  bool Write(std::string_view text, std::string* error) const;

  const std::string& path() const { return path_; }

 private:
  std::string dir_;
  std::string path_;
};

// $PBR_ELEMENT_STATE_DIR, else /var/lib/pbr-element.
std::string StateDir();

}  // namespace pbr::mgmt
