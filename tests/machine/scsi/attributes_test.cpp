// Disk attribute records in the registry: how they are read, and which are dropped.
#include <gtest/gtest.h>

#include "fake_machine.h"
#include "files.h"
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

const GUID kDisk = Id("6000C29A-1B2C-3D4E-5F60-718293A4B5C6");

// A record as the appliance's other programs write it; no value without `value`.
void Record(const String& name, const Registry::Value* value) {
  Registry::Key record;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(name, record));
  if (value) { ASSERT_FALSE(record.SetValue(String(), *value)); }
}

Registry::MultiString Strings(std::initializer_list<const char16_t*> texts) {
  Registry::MultiString out;
  for (const char16_t* t : texts) out.push_back(Str(t));
  return out;
}

TEST(DiskAttributes, HowRecordsRead) {
  const Registry::Value twoPairs = Strings({u"Temporary", u"1", u"Temporary", u"0"}),
                        odd = Strings({u"Temporary", u"1", u"Owner"}), one = Strings({u"Temporary"}),
                        empty = Registry::MultiString{}, number = uint32_t{1}, text = Str(u"Temporary");
  const DiskAttributes stale{{Str(u"stale"), Str(u"x")}};
  const struct {
    const char* what;
    bool record;
    const Registry::Value* value;
    DiskAttributes expected;
    const char* assertion;  // the end of the one assertion expected, or none
    int errorLine;          // of the failure, or 0
  } cases[] = {
      {"no record", false, nullptr, {}, nullptr, 0},
      {"first pair wins", true, &twoPairs, {{kTemporary, Str(u"1")}}, nullptr, 0},
      {"odd count: the last string is ignored", true, &odd, {{kTemporary, Str(u"1")}}, "attributes, line 119", 0},
      {"one string", true, &one, {}, "attributes, line 119", 0},
      {"empty multistring", true, &empty, {}, nullptr, 0},
      {"a number instead", true, &number, {}, "attributes, line 124", 0},
      {"a string instead", true, &text, {}, "attributes, line 124", 0},
      {"no default value: unreadable", true, nullptr, stale, nullptr, 131},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    AS_FAKE_MACHINE(m);
    if (c.record) Record(kDisk.ToWideString(), c.value);
    AssertRecorder asserts;
    TraceRecorder traces;
    DiskAttributes attributes = stale;
    const Common::Error e = SCSI::Detail::LoadDiskAttributes(kDisk, attributes);
    EXPECT_EQ(c.errorLine, e.GetLocation().line);
    EXPECT_EQ(!!e, Common::ToUtf8(e.GetText()).find("'6000C29A-1B2C-3D4E-5F60-718293A4B5C6'") != std::string::npos);
    EXPECT_EQ(c.expected, attributes);
    EXPECT_EQ(c.assertion ? 1u : 0u, asserts.Count());
    if (c.assertion) { EXPECT_EQ(1u, asserts.Count(c.assertion)); }
    EXPECT_TRUE(traces.Containing().empty());
    const auto temporary = SCSI::Detail::GetDiskAttributes(kDisk, kTemporary);
    const auto found = c.expected.find(kTemporary);
    EXPECT_TRUE(temporary == (found == c.expected.end() ? std::nullopt : std::optional<String>(found->second)));
  }
}

TEST(DiskAttributes, SyncDropsOrphansWithOneTraceEach) {
  AS_FAKE_MACHINE(m);
  const GUID present = Id("00000000-0000-0000-0000-00000000000A");
  const Registry::Value value = Strings({u"Temporary", u"1"});
  for (const char16_t* name : {u"00000000-0000-0000-0000-00000000000A", u"00000000-0000-0000-0000-00000000000a",
                               u"FFFFFFFF-0000-0000-0000-000000000000", u"11111111-0000-0000-0000-000000000000"})
    Record(Str(name), &value);
  SCSI::Disk disk;
  disk.id = present;
  TraceRecorder traces;
  SCSI::Detail::SyncDisksAttributes({disk});
  std::vector<String> left;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_EQ(std::vector<String>{present.ToWideString()}, left);  // the lower-case twin was an orphan
  const auto dropped = traces.Containing("orphaned");
  ASSERT_EQ(3u, dropped.size());
  EXPECT_EQ(83, dropped[0].code);

  SCSI::Detail::SyncDisksAttributes({});
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(4u, traces.Containing("orphaned").size());
}

TEST(DiskAttributes, ACorruptRegistryFailsSyncAndStaysAsItWas) {
  AS_FAKE_MACHINE(m);
  const Registry::Value value = Strings({u"Temporary", u"1"});
  Record(kDisk.ToWideString(), &value);
  const std::string file = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";
  std::string text = m.ReadFile(file);
  text.resize(text.size() / 2);
  m.WriteFile(file, text);

  EXPECT_FALSE(SCSI::Detail::GetDiskAttributes(kDisk, kTemporary));
  try {
    SCSI::Detail::SyncDisksAttributes({});
    ADD_FAILURE() << "a corrupt registry cannot be synchronised";
  } catch (const Common::Error& e) {
    EXPECT_EQ(std::make_pair(0x530040u, 162), std::make_pair(e.GetCode(), e.GetLocation().line));
  }
  EXPECT_EQ(text, m.ReadFile(file));
}

}  // namespace
