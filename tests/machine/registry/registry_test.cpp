// The registry on its real paths: each test gets a fresh tmpfs over /etc/Zemlora from
// the faked machine, so nothing reaches the host's registry.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <random>

#include "child.h"
#include "descriptors.h"
#include "core/common/unicode.h"
#include "fake_machine.h"
#include "files.h"
#include "registry/document.h"
#include "registry/errors.h"
#include "registry/key.h"

namespace {

using Common::Str;
using FakeMachineTesting::ReadText;
using Registry::Key;
using Registry::Value;

constexpr char kMachineFile[] = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!FakeMachineTesting::FakeMachine::Available(&why)) GTEST_SKIP() << why;
    machine_ = std::make_unique<FakeMachineTesting::FakeMachine>();
  }
  static Key Machine() {
    Key key;
    EXPECT_FALSE(Key::OpenPredefined(Registry::HKEY_LOCAL_MACHINE, key));
    return key;
  }
  static std::string File(const char* path = kMachineFile) {
    std::string text;
    ReadText(path, text);
    return text;
  }

 private:
  std::unique_ptr<FakeMachineTesting::FakeMachine> machine_;
};

// The dword "n" of HKEY_LOCAL_MACHINE\Counter in the file; -1 if none, -2 if unparsable.
int64_t Counter() {
  std::string document;
  if (!ReadText(kMachineFile, document)) return -1;
  Registry::KeyNode root;
  if (Registry::ParseRegistryDocument(document.data(), document.size(), "", root)) return -2;
  const auto key = root.children.find(Str(u"Counter"));
  if (key == root.children.end()) return -1;
  const auto value = key->second->values.find(Str(u"n"));
  return value == key->second->values.end() ? -1 : std::get<uint32_t>(value->second);
}

// Every type and odd name surviving the file is the document's business; here, the
// key's own calls.
TEST_F(RegistryTest, ValuesAndChildrenOfAKey) {
  Key key, child;
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Software\\Zemlora"), key));
  const std::pair<String, Value> values[] = {
      {String(), Registry::MultiString{Str(u"Temporary"), Str(u"1")}},
      {Str(u"B"), Registry::Binary{0, 1, 0xFE}},
      {Str(u"a"), uint64_t{1} << 63},
      {Str(u"\U0001F600"), uint32_t{0xFFFFFFFF}},
      {Str(u"\uFFFD"), String{'x', 0, 0xDC00, 0xFFFE, '\n'}},
  };
  std::vector<String> names;  // in unit order, as they come
  for (const auto& [name, value] : values) {
    ASSERT_FALSE(key.SetValue(name, value));
    ASSERT_FALSE(key.CreateKeyRecursive(name.empty() ? Str(u"!") : name, child));
    names.push_back(name);
  }
  for (const auto& [name, value] : values) {
    Value read;
    ASSERT_FALSE(key.QueryValue(name, read));
    EXPECT_TRUE(read == value) << Common::ToUtf8(name);
  }
  std::vector<String> listed;
  ASSERT_FALSE(key.EnumerateValues(listed));
  EXPECT_EQ(listed, names);
  names[0] = Str(u"!");
  ASSERT_FALSE(key.EnumerateChildren(listed));
  EXPECT_EQ(listed, names);
  ASSERT_FALSE(key.OpenChild(Str(u"\U0001F600"), child));
  EXPECT_EQ(child.GetPath(), Str(u"HKEY_LOCAL_MACHINE\\Software\\Zemlora\\\U0001F600"));
  EXPECT_EQ(key.OpenChild(Str(u"b"), child).GetCode(), Registry::kErrorKeyNotFound);  // names are exact
  EXPECT_EQ(File().find("\xEF\xBF\xBE"), std::string::npos);  // U+FFFE is no XML character

  Value read;
  ASSERT_FALSE(key.SetValue(String(), uint32_t{7}));  // a value may change its type
  ASSERT_FALSE(key.QueryValue(String(), read));
  EXPECT_EQ(read, Value(uint32_t{7}));
  ASSERT_FALSE(key.DeleteValue(Str(u"a")));
  const Common::Error missing = key.QueryValue(Str(u"a"), read);
  EXPECT_EQ(missing.GetCode(), Registry::kErrorValueNotFound);
  EXPECT_STREQ(missing.GetFieldNames(), "Value,$module");
  EXPECT_STREQ(missing.GetStringField("Value"), "a");
  EXPECT_EQ(read, Value(uint32_t{7}));  // not written on failure
  EXPECT_EQ(key.DeleteValue(Str(u"a")).GetCode(), Registry::kErrorValueNotFound);
}

TEST_F(RegistryTest, DeletingAChildTakesEverythingBelowIt) {
  Key deep, sibling, top;
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Top\\Gone\\Deeper\\Deepest"), deep));
  ASSERT_FALSE(deep.SetValue(Str(u"v"), uint32_t{1}));
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Top\\Kept"), sibling));
  ASSERT_FALSE(sibling.SetValue(String(), Str(u"kept")));
  ASSERT_FALSE(Machine().Open(Str(u"Top"), top));
  ASSERT_FALSE(top.DeleteChild(Str(u"Gone")));

  Value value;
  const Common::Error stale = deep.QueryValue(Str(u"v"), value);
  EXPECT_EQ(stale.GetCode(), Registry::kErrorKeyNotFound);
  EXPECT_STREQ(stale.GetStringField("Key"), "HKEY_LOCAL_MACHINE\\Top\\Gone\\Deeper\\Deepest");
  std::vector<String> names;
  ASSERT_FALSE(top.EnumerateChildren(names));
  EXPECT_EQ(names, std::vector<String>{Str(u"Kept")});
  EXPECT_FALSE(sibling.QueryValue(String(), value));
  // Recreating the path gives a fresh key, without the old values.
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Top\\Gone\\Deeper\\Deepest"), deep));
  EXPECT_EQ(deep.QueryValue(Str(u"v"), value).GetCode(), Registry::kErrorValueNotFound);
  EXPECT_EQ(top.DeleteChild(Str(u"Missing")).GetCode(), Registry::kErrorKeyNotFound);
}

TEST_F(RegistryTest, BadHandlesAndPathsNameTheKey) {
  const Key machine = Machine();
  Key key;
  const struct {
    const char* name;
    Common::Error error;
    uint32_t code;
    const char* field;
  } cases[] = {
      {"missing key", machine.Open(Str(u"Software\\Missing"), key), Registry::kErrorKeyNotFound,
       "HKEY_LOCAL_MACHINE\\Software\\Missing"},
      {"leading separator", machine.Open(Str(u"\\a"), key), Registry::kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\\\a"},
      {"trailing separator", machine.CreateKeyRecursive(Str(u"a\\"), key), Registry::kErrorInvalidKeyPath,
       "HKEY_LOCAL_MACHINE\\a\\"},
      {"doubled separator", machine.CreateKeyRecursive(Str(u"a\\\\b"), key), Registry::kErrorInvalidKeyPath,
       "HKEY_LOCAL_MACHINE\\a\\\\b"},
      {"path as a child name", machine.OpenChild(Str(u"a\\b"), key), Registry::kErrorInvalidKeyPath,
       "HKEY_LOCAL_MACHINE\\a\\b"},
      {"empty child name", machine.DeleteChild(String()), Registry::kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\"},
      {"unknown root", Key::OpenPredefined(0x80000004, key), Registry::kErrorInvalidKey, "0x80000004"},
      {"handle to no key", Key().SetValue(String(), uint32_t{1}), Registry::kErrorInvalidKey, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.error.GetCode(), c.code);
    EXPECT_STREQ(c.error.GetFieldNames(), "Key,$module");
    EXPECT_STREQ(c.error.GetStringField("Key"), c.field);
  }
  EXPECT_FALSE(key.IsValid());  // no failed call wrote its output

  String tooDeep = Str(u"k");
  for (size_t i = 0; i < Registry::kMaxKeyDepth; ++i) tooDeep += Str(u"\\k");
  EXPECT_EQ(machine.CreateKeyRecursive(tooDeep, key).GetCode(), Registry::kErrorInvalidKeyPath);
  EXPECT_FALSE(machine.Open(String(), key));
  EXPECT_EQ(key.GetPath(), Str(u"HKEY_LOCAL_MACHINE"));
}

TEST_F(RegistryTest, EachRootKeepsItsOwnFileAndACorruptOneIsLeftAlone) {
  Key users, usersKey, key;
  ASSERT_FALSE(Key::OpenPredefined(Registry::HKEY_USERS, users));
  ASSERT_FALSE(users.CreateKeyRecursive(Str(u"Software"), usersKey));
  EXPECT_NE(File("/etc/Zemlora/HKEY_USERS.xml").find("<registry root=\"HKEY_USERS\""), std::string::npos);

  const std::string corrupt = "<registry><key name='Software'><value type='dword'>12";
  FakeMachineTesting::WriteText(kMachineFile, corrupt);
  const Key machine = Machine();
  Value value;
  std::vector<String> names;
  for (const Common::Error& error :
       {machine.OpenChild(Str(u"Software"), key), machine.EnumerateChildren(names), machine.QueryValue(String(), value),
        machine.CreateKeyRecursive(Str(u"Software\\New"), key), machine.SetValue(String(), uint32_t{1}),
        machine.DeleteChild(Str(u"Software")), machine.DeleteValue(String())}) {
    EXPECT_EQ(error.GetCode(), Registry::kErrorFileCorrupt);
    EXPECT_STREQ(error.GetStringField("path"), kMachineFile);
  }
  EXPECT_EQ(File(), corrupt);
  EXPECT_FALSE(usersKey.SetValue(String(), uint32_t{2}));  // other roots go on working
}

TEST_F(RegistryTest, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kWrites = 100;
  const auto writer = [](const char16_t* name) {
    return TestSupport::StartChild([name] {
      for (int i = 0; i < kWrites; ++i) {
        Key key;
        const String path = Str(u"Writers\\") + Str(name) + Common::Widen("\\" + std::to_string(i));
        if (Machine().CreateKeyRecursive(path, key) || key.SetValue(String(), static_cast<uint32_t>(i))) return 1;
      }
      return 0;
    });
  };
  const pid_t first = writer(u"first"), second = writer(u"second");
  EXPECT_EQ(TestSupport::WaitChild(first), 0);
  EXPECT_EQ(TestSupport::WaitChild(second), 0);
  for (const char16_t* name : {u"first", u"second"}) {
    Key writerKey;
    std::vector<String> names;
    ASSERT_FALSE(Machine().Open(Str(u"Writers\\") + Str(name), writerKey));
    ASSERT_FALSE(writerKey.EnumerateChildren(names));
    EXPECT_EQ(names.size(), static_cast<size_t>(kWrites));
  }
}

TEST_F(RegistryTest, WritersKilledAtRandomNeverLeaveAPartialDocument) {
  std::mt19937 random(20240607);
  int64_t last = -1;
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    const uint32_t start = static_cast<uint32_t>(last + 1);
    const pid_t child = TestSupport::StartChild([start] {
      Key counter;
      if (Machine().CreateKeyRecursive(Str(u"Counter"), counter)) return 1;
      for (uint32_t n = start;; ++n)
        if (counter.SetValue(Str(u"n"), n)) return 1;
    });
    ::usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));
    ::kill(child, SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(TestSupport::WaitChild(child))) << "the writer failed";
    const int64_t now = Counter();  // killed before its first write, the writer leaves no file
    ASSERT_GE(now, last);           // a whole document, never older than what was there
    last = now;
  }
}

// The first read() of the next descriptor opened fails with EINTR; later reads of it
// are served as readv(). Only in a child: a seccomp filter stays for life.
int g_trappedReads = 0;

void OnTrappedRead(int, siginfo_t*, void* context) {
  greg_t* regs = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  if (g_trappedReads++ == 0) {
    regs[REG_RAX] = -EINTR;
    return;
  }
  iovec buffer = {reinterpret_cast<void*>(regs[REG_RSI]), static_cast<size_t>(regs[REG_RDX])};
  const long n = ::syscall(SYS_readv, regs[REG_RDI], &buffer, 1);
  regs[REG_RAX] = n < 0 ? -errno : n;
}

bool TrapFirstRead() {
  const int fd = ::dup(0);
  ::close(fd);
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 5),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_read, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(fd), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program = {static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  struct sigaction action = {};
  action.sa_sigaction = OnTrappedRead;
  action.sa_flags = SA_SIGINFO;
  return ::sigaction(SIGSYS, &action, nullptr) == 0 && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Each case prepares a child process, which then writes and reads a value and must
// hold as many descriptors afterwards as before.
TEST_F(RegistryTest, WorksInAnyProcess) {
  const struct {
    const char* what;
    std::function<bool()> prepare;
    int trappedReads;  // at least
  } cases[] = {
      {"standard input closed", [] { return ::close(0) == 0; }, 0},
#if defined(__x86_64__)
      {"a read interrupted by a signal", TrapFirstRead, 2},
#endif
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(0, TestSupport::RunInChild([&c] {
      ::alarm(20);  // a call retried forever ends here
      if (!c.prepare()) return 10;
      const int before = TestSupport::CountOwnFds();
      Key counter;
      Value value;
      if (Machine().CreateKeyRecursive(Str(u"Counter"), counter) || counter.SetValue(Str(u"n"), uint32_t{5}))
        return 1;
      errno = EINTR;  // as an earlier interrupted call may have left it
      if (counter.QueryValue(Str(u"n"), value)) return 1;
      if (value != Value(uint32_t{5})) return 2;
      return TestSupport::CountOwnFds() != before ? 3 : g_trappedReads < c.trappedReads ? 4 : 0;
    }));
  }
}

}  // namespace
