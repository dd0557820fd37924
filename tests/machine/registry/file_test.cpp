#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <random>

#include "core/common/unicode.h"
#include "private_registry.h"
#include "registry/document.h"
#include "registry/errors.h"

namespace {

using Common::Str;
using Registry::Key;
using Registry::Value;

using RegistryFiles = PrivateRegistryTest;

const char kTempFile[] = "/etc/Zemlora/.HKEY_LOCAL_MACHINE.xml.tmp";

// The dword "n" of HKEY_LOCAL_MACHINE\Counter as it is in `document`; -1 if none.
int64_t CounterIn(const std::string& document) {
  Registry::KeyNode root;
  if (Registry::ParseRegistryDocument(document.data(), document.size(), "", root)) return -2;
  auto key = root.children.find(Str(u"Counter"));
  if (key == root.children.end()) return -1;
  auto value = key->second->values.find(Str(u"n"));
  return value == key->second->values.end() ? -1 : std::get<uint32_t>(value->second);
}

TEST_F(RegistryFiles, ACorruptFileFailsReadsAndWritesAndIsLeftAlone) {
  const std::string corrupt = "<registry><key name='Software'><value type='dword'>12";
  WriteBytes(kMachineFile, corrupt);
  const Key machine = Machine();
  Key key;
  Value value;
  std::vector<String> names;
  const Common::Error errors[] = {
      machine.OpenChild(Str(u"Software"), key),
      machine.EnumerateChildren(names),
      machine.QueryValue(String(), value),
      machine.CreateKeyRecursive(Str(u"Software\\New"), key),
      machine.SetValue(String(), uint32_t{1}),
      machine.DeleteChild(Str(u"Software")),
      machine.DeleteValue(String()),
  };
  for (const Common::Error& error : errors) {
    EXPECT_EQ(error.GetCode(), Registry::kErrorFileCorrupt);
    EXPECT_STREQ(error.GetStringField("path"), kMachineFile);
  }
  EXPECT_EQ(ReadBytes(kMachineFile), corrupt);

  Key users, other;
  ASSERT_FALSE(Key::OpenPredefined(Registry::HKEY_USERS, users));
  EXPECT_FALSE(users.CreateKeyRecursive(Str(u"Software"), other));  // other roots go on working
}

TEST_F(RegistryFiles, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kWrites = 100;
  const auto writer = [this](const char16_t* name) {
    return Spawn([this, name] {
      for (int i = 0; i < kWrites; ++i) {
        Key key;
        const String path = Str(u"Writers\\") + Str(name) + Common::Widen("\\" + std::to_string(i));
        if (Machine().CreateKeyRecursive(path, key) || key.SetValue(String(), static_cast<uint32_t>(i))) return 1;
      }
      return 0;
    });
  };
  const pid_t first = writer(u"first"), second = writer(u"second");
  // Meanwhile every read finds a whole document.
  int reads = 0;
  while (::waitpid(first, nullptr, WNOHANG) == 0) {
    Key key;
    const Common::Error error = Machine().Open(Str(u"Writers"), key);
    EXPECT_TRUE(!error || error.GetCode() == Registry::kErrorKeyNotFound) << error.GetCode();
    ++reads;
  }
  EXPECT_EQ(Reap(second), 0);
  for (const char16_t* name : {u"first", u"second"}) {
    Key writerKey;
    std::vector<String> names;
    ASSERT_FALSE(Machine().Open(Str(u"Writers\\") + Str(name), writerKey));
    ASSERT_FALSE(writerKey.EnumerateChildren(names));
    EXPECT_EQ(names.size(), static_cast<size_t>(kWrites));
    for (int i = 0; i < kWrites; ++i) {
      Key key;
      Value value;
      ASSERT_FALSE(writerKey.OpenChild(Common::Widen(std::to_string(i)), key));
      ASSERT_FALSE(key.QueryValue(String(), value));
      EXPECT_EQ(value, Value(static_cast<uint32_t>(i)));
    }
  }
  EXPECT_GT(reads, 0);
}

// A seccomp filter that hands this process's rename calls to a supervisor, which
// can then kill it while the new document sits complete in the temporary file.
int TrapRenames() {
  struct sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_rename, 2, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_renameat2, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  struct sock_fprog program = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
  return static_cast<int>(
      ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

TEST_F(RegistryFiles, AWriterKilledBeforeItsRenameLeavesTheOldDocument) {
#if !defined(__x86_64__)
  GTEST_SKIP() << "the rename trap is written for x86-64";
#endif
  Key counter;
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Counter"), counter));
  ASSERT_FALSE(counter.SetValue(Str(u"n"), uint32_t{1}));
  const std::string before = ReadBytes(kMachineFile);

  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  const pid_t child = Spawn([&] {
    const int listener = TrapRenames();
    if (::write(pipeFds[1], &listener, sizeof listener) != sizeof listener || listener < 0) return 1;
    return counter.SetValue(Str(u"n"), uint32_t{2}) ? 1 : 0;
  });
  ::close(pipeFds[1]);
  int listener = -1;
  ASSERT_EQ(::read(pipeFds[0], &listener, sizeof listener), static_cast<ssize_t>(sizeof listener));
  ::close(pipeFds[0]);
  if (listener < 0) {
    ::kill(child, SIGKILL);
    Reap(child);
    GTEST_SKIP() << "seccomp user notification is not available here";
  }
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
  ASSERT_GE(pidfd, 0);
  const int notify = static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, listener, 0));
  ASSERT_GE(notify, 0);
  struct pollfd waiting = {notify, POLLIN, 0};
  ASSERT_EQ(::poll(&waiting, 1, 30000), 1);
  struct seccomp_notif request = {};
  ASSERT_EQ(::ioctl(notify, SECCOMP_IOCTL_NOTIF_RECV, &request), 0);

  // The child now waits inside rename(): the new document is whole, but only in the
  // temporary file.
  EXPECT_EQ(CounterIn(ReadBytes(kTempFile)), 2);
  EXPECT_EQ(ReadBytes(kMachineFile), before);
  ::kill(child, SIGKILL);
  const int status = Reap(child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  ::close(notify);
  ::close(pidfd);

  Value value;
  ASSERT_FALSE(counter.QueryValue(Str(u"n"), value));
  EXPECT_EQ(value, Value(uint32_t{1}));
  ASSERT_FALSE(counter.SetValue(Str(u"n"), uint32_t{3}));  // the leftover does not get in the way
  EXPECT_EQ(CounterIn(ReadBytes(kMachineFile)), 3);
  EXPECT_NE(::access(kTempFile, F_OK), 0);
}

TEST_F(RegistryFiles, WritersKilledAtRandomNeverLeaveAPartialDocument) {
  std::mt19937 random(20240607);
  int64_t last = -1;
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    const uint32_t start = static_cast<uint32_t>(last + 1);
    const pid_t child = Spawn([this, start] {
      Key counter;
      if (Machine().CreateKeyRecursive(Str(u"Counter"), counter)) return 1;
      for (uint32_t n = start;; ++n)
        if (counter.SetValue(Str(u"n"), n)) return 1;
    });
    ::usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));
    ::kill(child, SIGKILL);
    const int status = Reap(child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed";
    // Killed before its first write, the writer leaves no file at all.
    const int64_t now = ::access(kMachineFile, F_OK) == 0 ? CounterIn(ReadBytes(kMachineFile)) : -1;
    ASSERT_GE(now, last);  // a whole document, never older than what was there
    last = now;
  }
}

}  // namespace
