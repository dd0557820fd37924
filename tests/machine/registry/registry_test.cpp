// The registry on its real paths, over a fresh tmpfs per test from the faked machine.
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <utility>

#include "child.h"
#include "core/common/unicode.h"
#include "descriptors.h"
#include "fake_machine.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"
#include "registry/document.h"
#include "registry/errors.h"
#include "registry/key.h"

namespace {

using Common::Str;
using Registry::Key;
using Registry::Value;

constexpr char kMachineFile[] = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";

Key Machine() {
  Key key;
  EXPECT_FALSE(Key::OpenPredefined(Registry::HKEY_LOCAL_MACHINE, key));
  return key;
}

// One registry: values and children on a root with a file of its own, bad handles and
// paths, and changes that cannot be made.
TEST(Registry, KeysValuesAndFailedCalls) {
  AS_FAKE_MACHINE(m);
  Key users, key, child;
  ASSERT_FALSE(Key::OpenPredefined(Registry::HKEY_USERS, users));
  ASSERT_FALSE(users.CreateKeyRecursive(Str(u"Software\\Zemlora"), key));
  // In the order of their 16-bit units: the surrogate pair comes before U+FFFD.
  const std::pair<String, Value> values[] = {
      {String(), Registry::MultiString{Str(u"Temporary"), Str(u"1")}}, {Str(u"B"), Registry::Binary{0, 1, 0xFE}},
      {Str(u"a"), uint64_t{1} << 63}, {Str(u"\U0001F600"), uint32_t{0xFFFFFFFF}}, {Str(u"\uFFFD"), Str(u"x\n")}};
  std::vector<String> names, listed;
  for (const auto& [name, value] : values) {
    ASSERT_FALSE(key.SetValue(name, value));
    ASSERT_FALSE(key.CreateKeyRecursive(name.empty() ? Str(u"!") : name, child));
    names.push_back(name);
  }
  Value read;
  for (const auto& [name, value] : values)
    EXPECT_TRUE(!key.QueryValue(name, read) && read == value) << Common::ToUtf8(name);
  EXPECT_TRUE(!key.EnumerateValues(listed) && listed == names);
  names[0] = Str(u"!");
  EXPECT_TRUE(!key.EnumerateChildren(listed) && listed == names);
  ASSERT_FALSE(key.OpenChild(Str(u"\U0001F600"), child));
  EXPECT_EQ(key.OpenChild(Str(u"b"), child).GetCode(), Registry::kErrorKeyNotFound);  // names are exact
  ASSERT_FALSE(key.SetValue(String(), uint32_t{7}));  // a value may change its type
  EXPECT_TRUE(!key.QueryValue(String(), read) && read == Value(uint32_t{7}));
  ASSERT_FALSE(key.DeleteValue(Str(u"a")));
  const Common::Error missing = key.QueryValue(Str(u"a"), read);
  EXPECT_EQ(missing.GetCode(), Registry::kErrorValueNotFound);
  EXPECT_STREQ(missing.GetStringField("Value"), "a");
  EXPECT_EQ(read, Value(uint32_t{7}));  // not written on failure
  EXPECT_EQ(key.DeleteValue(Str(u"a")).GetCode(), Registry::kErrorValueNotFound);
  // Deleting a child takes everything below it; the value of the same name stays.
  Key deep;
  ASSERT_FALSE(key.CreateKeyRecursive(Str(u"B\\Deeper"), deep));
  ASSERT_FALSE(key.DeleteChild(Str(u"B")));
  const Common::Error stale = deep.QueryValue(Str(u"v"), read);
  EXPECT_EQ(stale.GetCode(), Registry::kErrorKeyNotFound);
  EXPECT_STREQ(stale.GetStringField("Key"), "HKEY_USERS\\Software\\Zemlora\\B\\Deeper");
  names.erase(names.begin() + 1);
  EXPECT_TRUE(!key.EnumerateChildren(listed) && listed == names);
  EXPECT_FALSE(key.QueryValue(Str(u"B"), read));
  EXPECT_EQ(key.DeleteChild(Str(u"Missing")).GetCode(), Registry::kErrorKeyNotFound);
  EXPECT_NE(m.ReadFile("/etc/Zemlora/HKEY_USERS.xml").find("<registry root=\"HKEY_USERS\""), std::string::npos);
  EXPECT_FALSE(m.Exists(kMachineFile));

  const Key machine = Machine();
  Key none;
  using Registry::kErrorInvalidKeyPath;
  const struct { Common::Error error; uint32_t code; const char* field; } cases[] = {
      {machine.Open(Str(u"Soft\\Missing"), none), Registry::kErrorKeyNotFound, "HKEY_LOCAL_MACHINE\\Soft\\Missing"},
      {machine.Open(Str(u"\\a"), none), kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\\\a"},
      {machine.CreateKeyRecursive(Str(u"a\\"), none), kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\a\\"},
      {machine.CreateKeyRecursive(Str(u"a\\\\b"), none), kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\a\\\\b"},
      {machine.OpenChild(Str(u"a\\b"), none), kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\a\\b"},
      {machine.DeleteChild(String()), kErrorInvalidKeyPath, "HKEY_LOCAL_MACHINE\\"},
      {Key::OpenPredefined(0x80000004, none), Registry::kErrorInvalidKey, "0x80000004"},
      {Key().SetValue(String(), uint32_t{1}), Registry::kErrorInvalidKey, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field);
    EXPECT_EQ(c.error.GetCode(), c.code);
    EXPECT_STREQ(c.error.GetFieldNames(), "Key,$module");
    EXPECT_STREQ(c.error.GetStringField("Key"), c.field);
  }
  EXPECT_FALSE(none.IsValid());  // no failed call wrote its output
  String tooDeep = Str(u"k");
  for (size_t i = 0; i < Registry::kMaxKeyDepth; ++i) tooDeep += Str(u"\\k");
  EXPECT_EQ(machine.CreateKeyRecursive(tooDeep, none).GetCode(), kErrorInvalidKeyPath);
  EXPECT_EQ(machine.Open(tooDeep.substr(2), none).GetCode(), Registry::kErrorKeyNotFound);  // at the limit
  EXPECT_TRUE(!machine.Open(String(), key) && key.GetPath() == Str(u"HKEY_LOCAL_MACHINE"));

  // Without standard input the first file opened gets descriptor 0: the value reads back, no descriptor stays open.
  EXPECT_EQ(0, TestSupport::RunInChild([&users] {
    const int before = ::close(0) == 0 ? TestSupport::CountOwnFds() : -1;
    Key counter;
    Value value;
    if (users.CreateKeyRecursive(Str(u"Counter"), counter) || counter.SetValue(Str(u"n"), uint32_t{5})) return 1;
    if (counter.QueryValue(Str(u"n"), value) || value != Value(uint32_t{5})) return 2;
    return TestSupport::CountOwnFds() != before ? 3 : 0;
  }));
  // A change that does not fit on the disk, or to a corrupt file, names the file and leaves it alone.
  ASSERT_FALSE(machine.CreateKeyRecursive(Str(u"Software"), key));
  ASSERT_EQ(0, ::mount("tmpfs", "/etc/Zemlora", "tmpfs", MS_REMOUNT, "size=8k"));
  for (const uint32_t code : {Registry::kErrorFileAccess, Registry::kErrorFileCorrupt}) {
    if (code == Registry::kErrorFileCorrupt)
      m.WriteFile(kMachineFile, "<registry><key name='Software'><value type='dword'>12");
    const std::string before = m.ReadFile(kMachineFile);
    const Common::Error error = key.SetValue(Str(u"big"), String(8192, 'x'));
    EXPECT_EQ(code, error.GetCode());
    EXPECT_STREQ(kMachineFile, error.GetStringField("path"));
    EXPECT_EQ(before, m.ReadFile(kMachineFile));
  }
}

// Concurrent writers lose no change; a writer killed at random points while it changes a
// disk's attributes leaves the record whole, with the old or the new value.
TEST(Registry, WritersAtOnceAndKilledWriters) {
  AS_FAKE_MACHINE(m);
  constexpr size_t kWrites = 100;
  std::vector<pid_t> writers;
  for (const char* name : {"first", "second"})
    writers.push_back(TestSupport::StartChild([name] {
      Key key;
      for (size_t i = 0; i < kWrites; ++i)
        if (Machine().CreateKeyRecursive(Common::Widen(name + ("\\" + std::to_string(i))), key)) return 1;
      return 0;
    }));
  for (const pid_t writer : writers) EXPECT_EQ(TestSupport::WaitChild(writer), 0);
  Key key;
  std::vector<String> names;
  for (const char16_t* name : {u"first", u"second"})
    EXPECT_TRUE(!Machine().Open(Str(name), key) && !key.EnumerateChildren(names) && names.size() == kWrites);

  GUID disk;
  ASSERT_TRUE(GUID::Parse("01234567-89AB-CDEF-0123-456789ABCDEF", disk));
  ASSERT_FALSE(SCSI::SetDiskAttribute(disk, Str(u"Temporary"), Str(u"1")));
  const auto value = [](int64_t n) {  // long, so that writes take a while; its tail tells its head
    return Common::Widen(std::to_string(n) + ":" + std::string(4000, static_cast<char>('a' + n % 26)));
  };
  std::mt19937 random(20240607);
  int64_t last = -1;
  int torn = 0;
  for (int round = 0; round < 200; ++round) {
    const pid_t child = TestSupport::StartChild([&] {
      for (int64_t n = last + 1;; ++n)
        if (SCSI::SetDiskAttribute(disk, Str(u"n"), value(n))) return 1;
    });
    ::usleep(std::uniform_int_distribution<useconds_t>(0, 5000)(random));
    ::kill(child, SIGKILL);
    ASSERT_TRUE(WIFSIGNALED(TestSupport::WaitChild(child))) << "the writer failed";
    SCSI::DiskAttributes read;
    const bool readable = !SCSI::GetDiskAttributes(disk, read) && read[Str(u"Temporary")] == Str(u"1");
    const auto n = read.find(Str(u"n"));
    const int64_t now = n == read.end() ? -1 : std::strtoll(Common::ToUtf8(n->second).c_str(), nullptr, 10);
    torn += !readable || (now >= 0 && n->second != value(now)) || now < last;  // never older than what was there
    last = std::max(last, now);
  }
  EXPECT_EQ(0, torn);
  EXPECT_GT(last, 0) << "no writer got as far as a change";
}

}  // namespace
