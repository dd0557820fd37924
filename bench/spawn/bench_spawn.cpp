// RunCommand("true") against posix_spawn of "/bin/sh -c true" in the same program, with
// a fork-and-close-loop spawn for scale, in four cells: descriptor limit 1024 or the
// highest the machine allows, parent resident memory about 10 MB or about 4 GB.
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "core/linex/linux_misc.h"

extern char** environ;

namespace {

// A touched buffer brings the parent to about 10 MB or about 4 GB resident.
void SetResident(bool large) {
  static void* buffer = nullptr;
  static size_t size = 0;
  const size_t wanted = large ? size_t{4} << 30 : size_t{7} << 20;
  if (size == wanted) return;
  if (buffer != nullptr) munmap(buffer, size);
  buffer = mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  size = buffer == MAP_FAILED ? 0 : wanted;
  if (size != 0) std::memset(buffer, 1, size);
}

rlim_t SetDescriptorLimit(bool highest) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = highest ? limit.rlim_max : 1024;
  setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

long ResidentMegabytes() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * sysconf(_SC_PAGESIZE) / (1 << 20);
}

int PosixSpawnTrue() {
  char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), const_cast<char*>("true"), nullptr};
  pid_t pid;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What a classic launcher does: fork, close every number up to the limit, exec.
int ForkCloseLoopTrue() {
  const pid_t pid = fork();
  if (pid == 0) {
    const long limit = sysconf(_SC_OPEN_MAX);
    for (long fd = 3; fd < limit; ++fd) close(static_cast<int>(fd));
    execl("/bin/sh", "/bin/sh", "-c", "true", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Cell(benchmark::State& state, int (*spawn)(), bool highLimit, bool large) {
  SetResident(large);
  const rlim_t limit = SetDescriptorLimit(highLimit);
  for (auto _ : state)
    if (spawn() != 0) state.SkipWithError("the child failed");
  state.counters["nofile"] = static_cast<double>(limit);
  state.counters["rss_MB"] = static_cast<double>(ResidentMegabytes());
}

int RunCommandTrue() { return RunCommand("true"); }

}  // namespace

int main(int argc, char** argv) {
  const struct {
    const char* name;
    int (*spawn)();
  } spawns[] = {{"RunCommand", RunCommandTrue}, {"posix_spawn", PosixSpawnTrue}, {"fork_close_loop", ForkCloseLoopTrue}};
  for (bool large : {false, true}) {
    for (bool highLimit : {false, true}) {
      for (const auto& s : spawns) {
        const std::string name = std::string(s.name) + (large ? "/rss_4GB" : "/rss_10MB") +
                                 (highLimit ? "/nofile_max" : "/nofile_1024");
        benchmark::RegisterBenchmark(name.c_str(), Cell, s.spawn, highLimit, large)->Unit(benchmark::kMicrosecond)->UseRealTime();
      }
    }
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
