// A private element environment for one test: a temporary directory holding the runtime dir,
// the state dir and the log file, with the PBR_ELEMENT_* variables pointing into it. Restores the
// variables and removes the directory afterwards.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>

namespace pbrtest {

class ElementEnv {
 public:
  // `trace`: the PBR_ELEMENT_TRACE value for the test (empty: everything off).
  explicit ElementEnv(const std::string& trace = "") {
    std::string tmpl =
        (std::filesystem::temp_directory_path() / "pbr-element-test.XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
    root_ = tmpl;
    Set("PBR_ELEMENT_RUNTIME_DIR", (root_ / "run").string());
    Set("PBR_ELEMENT_STATE_DIR", (root_ / "state").string());
    Set("PBR_ELEMENT_LOG", LogPath());
    Set("PBR_ELEMENT_TRACE", trace);
    Set("PBR_ELEMENT_BACKEND", "");
  }
  ~ElementEnv() {
    for (const auto& [name, old] : saved_) {
      if (old) {
        setenv(name.c_str(), old->c_str(), 1);
      } else {
        unsetenv(name.c_str());
      }
    }
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  ElementEnv(const ElementEnv&) = delete;
  ElementEnv& operator=(const ElementEnv&) = delete;

  void Set(const std::string& name, const std::string& value) {
    if (!saved_.count(name)) {
      const char* old = getenv(name.c_str());
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    setenv(name.c_str(), value.c_str(), 1);
  }

  std::filesystem::path root() const { return root_; }
  std::string RuntimeDir() const { return (root_ / "run").string(); }
  std::string StateDir() const { return (root_ / "state").string(); }
  std::string LogPath() const { return (root_ / "element.log").string(); }
  std::string Log() const { return Read(LogPath()); }
  std::string Faults() const { return Read(RuntimeDir() + "/faults.log"); }

  static std::string Read(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

 private:
  std::filesystem::path root_;
  std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace pbrtest
