#include <gtest/gtest.h>

#include "core/common/unicode.h"
#include "private_registry.h"
#include "registry/document.h"
#include "registry/errors.h"

namespace {

using Common::Str;
using Registry::Key;
using Registry::Value;

using RegistryKeys = PrivateRegistryTest;

TEST_F(RegistryKeys, TypedValuesRoundTripThroughTheFile) {
  Key key;
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Software\\Zemlora\\Quillenmark\\SCSIDevices"), key));
  const std::pair<String, Value> values[] = {
      {String(), Registry::MultiString{Str(u"Temporary"), Str(u"1")}},
      {Str(u" "), String()},
      {Str(u"dword"), uint32_t{0xFFFFFFFF}},
      {Str(u"qword"), uint64_t{1} << 63},
      {Str(u"binary"), Registry::Binary{0, 1, 0xFE}},
      {Str(u"empty list"), Registry::MultiString{}},
      {Str(u"a\\b <&> \U0001F600"), String{'x', 0, 0xDC00, '\n'}},
  };
  for (const auto& [name, value] : values) ASSERT_FALSE(key.SetValue(name, value));
  for (const auto& [name, value] : values) {
    SCOPED_TRACE(Common::ToUtf8(name));
    Value read;
    ASSERT_FALSE(key.QueryValue(name, read));
    EXPECT_EQ(read, value);
  }
  std::vector<String> names;
  ASSERT_FALSE(key.EnumerateValues(names));
  EXPECT_EQ(names, (std::vector<String>{String(), Str(u" "), Str(u"a\\b <&> \U0001F600"), Str(u"binary"),
                                        Str(u"dword"), Str(u"empty list"), Str(u"qword")}));

  ASSERT_FALSE(key.SetValue(String(), uint32_t{7}));  // a value may change its type
  Value read;
  ASSERT_FALSE(key.QueryValue(String(), read));
  EXPECT_EQ(read, Value(uint32_t{7}));

  ASSERT_FALSE(key.DeleteValue(Str(u"dword")));
  const Common::Error missing = key.QueryValue(Str(u"dword"), read);
  EXPECT_EQ(missing.GetCode(), Registry::kErrorValueNotFound);
  EXPECT_STREQ(missing.GetFieldNames(), "Value,$module");
  EXPECT_STREQ(missing.GetStringField("Value"), "dword");
  EXPECT_EQ(read, Value(uint32_t{7}));
  EXPECT_EQ(key.DeleteValue(Str(u"dword")).GetCode(), Registry::kErrorValueNotFound);
}

TEST_F(RegistryKeys, ChildrenEnumerateInUnitOrderAndNamesAreExact) {
  const Key machine = Machine();
  const std::vector<String> sorted = {Str(u"!<&>\"'"), Str(u"A"), Str(u"B"), Str(u"a"), Str(u"a b"),
                                      Str(u"\u00e9"), Str(u"\U0001F600"), Str(u"\uFFFD")};
  for (size_t i = sorted.size(); i-- > 0;) {
    Key child;
    ASSERT_FALSE(machine.CreateKeyRecursive(Str(u"Root\\") + sorted[i], child));
  }
  Key root;
  ASSERT_FALSE(machine.OpenChild(Str(u"Root"), root));
  std::vector<String> names;
  ASSERT_FALSE(root.EnumerateChildren(names));
  EXPECT_EQ(names, sorted);
  for (const String& name : sorted) {
    Key child;
    EXPECT_FALSE(root.OpenChild(name, child)) << Common::ToUtf8(name);
    EXPECT_EQ(child.GetPath(), Str(u"HKEY_LOCAL_MACHINE\\Root\\") + name);
  }
  Key child;
  EXPECT_EQ(root.OpenChild(Str(u"\u00c9"), child).GetCode(), Registry::kErrorKeyNotFound);
  EXPECT_NE(ReadBytes(kMachineFile).find("<key name=\"!&lt;&amp;>&quot;'\" />"), std::string::npos);
}

TEST_F(RegistryKeys, DeletingAChildTakesEverythingBelowIt) {
  const Key machine = Machine();
  Key deep, sibling;
  ASSERT_FALSE(machine.CreateKeyRecursive(Str(u"Top\\Gone\\Deeper\\Deepest"), deep));
  ASSERT_FALSE(deep.SetValue(Str(u"v"), uint32_t{1}));
  ASSERT_FALSE(machine.CreateKeyRecursive(Str(u"Top\\Kept"), sibling));
  ASSERT_FALSE(sibling.SetValue(String(), Str(u"kept")));

  Key top;
  ASSERT_FALSE(machine.Open(Str(u"Top"), top));
  ASSERT_FALSE(top.DeleteChild(Str(u"Gone")));

  Value kept;
  const Common::Error stale = deep.QueryValue(Str(u"v"), kept);
  EXPECT_EQ(stale.GetCode(), Registry::kErrorKeyNotFound);
  EXPECT_STREQ(stale.GetStringField("Key"), "HKEY_LOCAL_MACHINE\\Top\\Gone\\Deeper\\Deepest");
  std::vector<String> names;
  ASSERT_FALSE(top.EnumerateChildren(names));
  EXPECT_EQ(names, std::vector<String>{Str(u"Kept")});
  EXPECT_FALSE(sibling.QueryValue(String(), kept));

  // Recreating the path gives a fresh key, without the old values.
  ASSERT_FALSE(machine.CreateKeyRecursive(Str(u"Top\\Gone\\Deeper\\Deepest"), deep));
  EXPECT_EQ(deep.QueryValue(Str(u"v"), kept).GetCode(), Registry::kErrorValueNotFound);
  EXPECT_EQ(top.DeleteChild(Str(u"Missing")).GetCode(), Registry::kErrorKeyNotFound);
}

TEST_F(RegistryKeys, BadHandlesAndPathsNameTheKey) {
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

TEST_F(RegistryKeys, EachRootKeepsItsOwnFile) {
  Key users, machineKey, usersKey;
  ASSERT_FALSE(Key::OpenPredefined(Registry::HKEY_USERS, users));
  ASSERT_FALSE(Machine().CreateKeyRecursive(Str(u"Same"), machineKey));
  ASSERT_FALSE(users.CreateKeyRecursive(Str(u"Same"), usersKey));
  ASSERT_FALSE(usersKey.SetValue(String(), uint32_t{2}));
  Value value;
  EXPECT_EQ(machineKey.QueryValue(String(), value).GetCode(), Registry::kErrorValueNotFound);
  EXPECT_NE(ReadBytes("/etc/Zemlora/HKEY_USERS.xml").find("<registry root=\"HKEY_USERS\""), std::string::npos);
}

}  // namespace
