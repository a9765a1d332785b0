// The entry of the benchmarks that start the element's middleware: a runtime directory of their
// own for its registration lock, unless PBR_ELEMENT_RUNTIME_DIR names one, removed at the end.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

int main(int argc, char** argv) {
  // A private runtime directory for the middleware's registration lock.
  std::string runtime;
  if (!std::getenv("PBR_ELEMENT_RUNTIME_DIR")) {
    std::string tmpl = std::filesystem::temp_directory_path() / "pbr-bench.XXXXXX";
    if (mkdtemp(tmpl.data())) {
      runtime = tmpl;
      setenv("PBR_ELEMENT_RUNTIME_DIR", runtime.c_str(), 1);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!runtime.empty()) std::filesystem::remove_all(runtime);
  return 0;
}
