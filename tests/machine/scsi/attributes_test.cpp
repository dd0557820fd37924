// Disk attribute records in the registry: how they are read, and which are dropped.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "core/common/unicode.h"
#include "fake_machine.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "recorders.h"

namespace {

using Common::Str;
using SCSI::Detail::DiskAttributes;

const String kTemporary = Str(u"Temporary");

GUID Id(const char* text) {
  GUID id;
  EXPECT_TRUE(GUID::Parse(text, id));
  return id;
}

// Writes a record the way the appliance's other programs do.
void Record(const String& name, const Registry::Value& value) {
  Registry::Key record;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(name, record));
  ASSERT_FALSE(record.SetValue(String(), value));
}

Registry::MultiString Strings(std::initializer_list<const char16_t*> texts) {
  Registry::MultiString out;
  for (const char16_t* t : texts) out.push_back(Str(t));
  return out;
}

const GUID kDisk = Id("6000C29A-1B2C-3D4E-5F60-718293A4B5C6");

const char kOddCount[] =
    "Assertion failed: multistring.size() % 2 == 0, file quillenmark/raw/common/scsi_disk_helpers/impl/attributes, "
    "line 119";
const char kWrongType[] =
    "Assertion failed: !\"Invalid registry key type\", file quillenmark/raw/common/scsi_disk_helpers/impl/attributes, "
    "line 124";

TEST(DiskAttributes, HowRecordsRead) {
  struct Case {
    const char* what;
    std::function<void()> write;
    DiskAttributes expected;
    const char* assertion;  // the one assertion expected, or none
  } cases[] = {
      {"no record", [] {}, {}, nullptr},
      {"first pair wins",
       [] { Record(kDisk.ToWideString(), Strings({u"Temporary", u"1", u"Temporary", u"0"})); },
       {{kTemporary, Str(u"1")}},
       nullptr},
      {"odd count: the last string is ignored",
       [] { Record(kDisk.ToWideString(), Strings({u"Temporary", u"1", u"Owner"})); },
       {{kTemporary, Str(u"1")}},
       kOddCount},
      {"one string", [] { Record(kDisk.ToWideString(), Strings({u"Temporary"})); }, {}, kOddCount},
      {"empty multistring", [] { Record(kDisk.ToWideString(), Registry::MultiString{}); }, {}, nullptr},
      {"a number instead", [] { Record(kDisk.ToWideString(), uint32_t{1}); }, {}, kWrongType},
      {"a string instead", [] { Record(kDisk.ToWideString(), Str(u"Temporary")); }, {}, kWrongType},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    AS_FAKE_MACHINE(m);
    m.Build();
    c.write();
    AssertRecorder asserts;
    TraceRecorder traces;
    DiskAttributes attributes{{Str(u"stale"), Str(u"x")}};
    EXPECT_FALSE(SCSI::Detail::LoadDiskAttributes(kDisk, attributes));
    EXPECT_EQ(c.expected, attributes);
    if (c.assertion)
      EXPECT_EQ(std::vector<std::string>{c.assertion}, asserts.Texts());
    else
      EXPECT_TRUE(asserts.Texts().empty());
    EXPECT_TRUE(traces.Events().empty());
    const auto temporary = SCSI::Detail::GetDiskAttributes(kDisk, kTemporary);
    if (c.expected.count(kTemporary))
      EXPECT_EQ(c.expected.at(kTemporary), temporary.value_or(Str(u"absent")));
    else
      EXPECT_FALSE(temporary);
  }
}

TEST(DiskAttributes, UnreadableRecordsAnswerAbsent) {
  AS_FAKE_MACHINE(m);
  m.Build();
  Registry::Key record;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(kDisk.ToWideString(), record));
  // A record without a default value cannot be read: the error says which disk.
  DiskAttributes attributes;
  const Common::Error e = SCSI::Detail::LoadDiskAttributes(kDisk, attributes);
  EXPECT_EQ(0x530040u, e.GetCode());
  EXPECT_EQ("Failed to get attributes for hard disk '6000C29A-1B2C-3D4E-5F60-718293A4B5C6'.",
            Common::ToUtf8(e.GetText()));
  EXPECT_TRUE(e.GetCause());
  EXPECT_FALSE(SCSI::Detail::GetDiskAttributes(kDisk, kTemporary));
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(DiskAttributes, SyncDropsOrphansInOrderWithOneTraceEach) {
  AS_FAKE_MACHINE(m);
  m.Build();
  const GUID present = Id("00000000-0000-0000-0000-00000000000A");
  for (const char16_t* name : {u"00000000-0000-0000-0000-00000000000A", u"00000000-0000-0000-0000-00000000000a",
                               u"FFFFFFFF-0000-0000-0000-000000000000", u"11111111-0000-0000-0000-000000000000"})
    Record(Str(name), Strings({u"Temporary", u"1"}));

  SCSI::Disk disk;
  disk.id = present;
  TraceRecorder traces;
  SCSI::Detail::SyncDisksAttributes({disk});
  std::vector<String> left;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_EQ(std::vector<String>{present.ToWideString()}, left);  // the lower-case twin was an orphan
  EXPECT_EQ(3u, traces.Containing("Dropping orphaned attribute node.").size());

  SCSI::Detail::SyncDisksAttributes({});
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(4u, traces.Containing("Dropping orphaned attribute node.").size());
}

TEST(DiskAttributes, ACorruptRegistryFailsSyncAndStaysAsItWas) {
  AS_FAKE_MACHINE(m);
  m.Build();
  Record(kDisk.ToWideString(), Strings({u"Temporary", u"1"}));
  const std::string file = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";
  std::string text = Slurp(file);
  ASSERT_FALSE(text.empty());
  text.resize(text.size() / 2);
  m.WriteFile(file, text);

  EXPECT_FALSE(SCSI::Detail::GetDiskAttributes(kDisk, kTemporary));
  try {
    SCSI::Detail::SyncDisksAttributes({});
    ADD_FAILURE() << "a corrupt registry cannot be synchronised";
  } catch (const Common::Error& e) {
    EXPECT_EQ(0x530040u, e.GetCode());
    EXPECT_EQ("Failed to synchronize disk attributes with actual system state.", Common::ToUtf8(e.GetText()));
    EXPECT_EQ(162, e.GetLocation().line);
    std::string chain;
    for (Common::Error c = e.GetCause(); c; c = c.GetCause())
      if (const char* path = c.GetStringField("path")) chain += path;
    EXPECT_NE(std::string::npos, chain.find(file));
  }
  EXPECT_EQ(text, Slurp(file));
}

}  // namespace
