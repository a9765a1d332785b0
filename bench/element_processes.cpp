#include "bench/element_processes.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace pbr::bench {

namespace fs = std::filesystem;

double Ms(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

pid_t Spawn(const std::vector<std::string>& argv, const std::string& output,
            const std::string& input) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (!input.empty()) posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Read(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

double MemoryMib(pid_t pid, const std::string& field) {
  std::istringstream status(Read("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1)) / 1024;
  }
  return 0;
}

double CpuMs(pid_t pid) {
  std::istringstream stat(Read("/proc/" + std::to_string(pid) + "/stat"));
  std::string field;
  // The command (field 2) has no spaces here; utime and stime are fields 14 and 15.
  for (int i = 1; i < 14 && stat >> field;) ++i;
  double utime = 0, stime = 0;
  stat >> utime >> stime;
  return (utime + stime) * 1000 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string RulesJson(int rules) {
  std::string json = R"({"pbr:router":{"pbr":[)";
  for (int id = 0; id < rules; ++id) {
    json += (id ? "," : "") + std::string(R"({"id":)") + std::to_string(id) +
            R"(,"rule":{"priority":)" + std::to_string(id) +
            R"(,"match":{"interface":["eth1"],"source":{"ipv4-address":{"mask":{"ip":"10.)" +
            std::to_string(id >> 8) + "." + std::to_string(id & 255) +
            R"(.0/24"}}}},"action":{"next-hop":{"ip":"192.0.2.1"}}}})";
  }
  return json + "]}}";
}

Element::Element()
    : dir_(fs::temp_directory_path() / ("pbr-element-bench." + std::to_string(getpid()))) {
  fs::create_directories(dir_ / "run");
  fs::create_directories(dir_ / "state");
  setenv("PBR_ELEMENT_RUNTIME_DIR", (dir_ / "run").c_str(), 1);
  setenv("PBR_ELEMENT_STATE_DIR", (dir_ / "state").c_str(), 1);
  setenv("PBR_ELEMENT_BACKEND", "memory", 1);
  setenv("PBR_ELEMENT_TRACE", "pbr-app=40", 1);  // the framework's info records only
}

Element::~Element() {
  Stop(app_);
  Stop(mgmtd_);
  fs::remove_all(dir_);
}

bool Element::StartServer() {
  setenv("PBR_ELEMENT_LOG", (dir_ / "mgmtd.log").c_str(), 1);
  mgmtd_ = Spawn({PBR_MGMTD_BIN}, (dir_ / "mgmtd.out").string());
  return WaitUntil(
      [&] { return Read((dir_ / "mgmtd.log").string()).find("serving") != std::string::npos; },
      std::chrono::seconds(30));
}

Element::Attach Element::StartApp() {
  const std::string log = (dir_ / "app.log").string();
  fs::remove(log);
  setenv("PBR_ELEMENT_LOG", log.c_str(), 1);
  app_ = Spawn({PBR_APP_BIN}, (dir_ / "app.out").string());
  const std::string marker = "initial configuration read and applied in ";
  const std::string after = " ms, ";
  std::string text;
  if (!WaitUntil([&] { return (text = Read(log)).find(" after attaching") != std::string::npos; },
                 std::chrono::seconds(120))) {
    return {};
  }
  const size_t at = text.find(marker) + marker.size();
  Attach figures;
  figures.load_ms = std::stod(text.substr(at));
  figures.total_ms = std::stod(text.substr(text.find(after, at) + after.size()));
  return figures;
}

void Element::StopApp() {
  Stop(app_);
}

double Element::Cli(std::vector<std::string> args, const std::string& input) {
  args.insert(args.begin(), {PBR_CLI_BIN, "--timeout", "300"});
  const auto start = Clock::now();
  const int status = Wait(Spawn(args, (dir_ / "cli.out").string(), input));
  return status == 0 ? Ms(Clock::now() - start) : -1;
}

std::string Element::File(const std::string& name, const std::string& text) {
  std::ofstream((dir_ / name).string()) << text;
  return (dir_ / name).string();
}

void Element::Stop(pid_t& pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  Wait(pid);
  pid = -1;
}

}  // namespace pbr::bench
