// The child closes descriptors with close_range, else by reading /proc/self/fd, else
// by a loop up to the limit. Each way is taken here in a forked copy of the test whose
// kernel refuses close_range (seccomp) and, for the loop, whose /proc is hidden (a
// private mount namespace; needs root, skipped otherwise).
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include <gtest/gtest.h>

#include "../../support/child.h"
#include "core/linex/create_process.h"
#include "core/linex/linux_misc.h"
#include "linex_test_support.h"

#ifndef SYS_close_range
#define SYS_close_range 436
#endif

namespace {

enum Outcome { kPassed = 0, kFailed = 1, kUnsupported = 2 };

bool RefuseCloseRange() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool HideDirectory(const char* path) {
  return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", path, "tmpfs", 0, nullptr) == 0;
}

int ChildSeesOnlyItsDescriptors() {
  for (int i = 0; i < 50; ++i) memfd_create("parent", 0);
  ChildProcess child;
  child.KeepStdFds = true;
  const auto result = LinexTest::Probe(child, "fds");
  return result.status == 0 && LinexTest::Descriptors(result.out).size() == 3 ? kPassed : kFailed;
}

TEST(CloseFallbacks, ProcSelfFdThenLoopWithoutProc) {
  const struct {
    const char* name;
    bool hideProc;
  } cases[] = {{"/proc/self/fd", false}, {"loop", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    if (c.hideProc) continue;  // a sanitized probe cannot start without /proc
#endif
    const int outcome = TestSupport::RunInChild([&] {
      if ((c.hideProc && !HideDirectory("/proc")) || !RefuseCloseRange()) return kUnsupported;
      return static_cast<Outcome>(ChildSeesOnlyItsDescriptors());
    });
    if (outcome == kUnsupported) std::printf("skipped %s: needs seccomp and, for the loop, root\n", c.name);
    EXPECT_NE(outcome, kFailed);
  }
}

TEST(MissingShell, CommandsExit127) {
  const int outcome = TestSupport::RunInChild([] {
    char target[16];
    if (!HideDirectory(readlink("/bin", target, sizeof target) > 0 ? "/usr/bin" : "/bin")) return kUnsupported;
    FILE* stream = POpen("echo x", "r");
    const bool popenFailed = stream != nullptr && std::fgetc(stream) == EOF && PClose(stream) == 127;
    return RunCommand("true") == 127 && popenFailed ? kPassed : kFailed;
  });
  if (outcome == kUnsupported) GTEST_SKIP() << "needs root for a private mount namespace";
  EXPECT_EQ(outcome, kPassed);
}

}  // namespace
