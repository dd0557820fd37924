#include "core/common/error.h"

#include <gtest/gtest.h>

#include "core/common/guid.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"

// Error nodes come from the nothrow operator new: counting and failing it shows their cost.
namespace {
thread_local int gNothrowAllocations = 0;
thread_local bool gFailNothrow = false;
}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return ++gNothrowAllocations, gFailNothrow ? nullptr : std::malloc(size ? size : 1);
}
void* operator new(std::size_t size) {
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Common::Error;
using Common::Str;

TEST(Error, AllocationsEmptinessAndTexts) {
  const unsigned short* shared = GetTextFromMessageFile(Messages::InternalError);
  ASSERT_NE(nullptr, shared);
  std::string narrow = "gone \xC3\xA9";
  String wide = Str(u"a much longer wide text than any small buffer");
  const int before = gNothrowAllocations;
  const Error empty[] = {Error(0, AS_HERE), Error(0, "x", AS_HERE), Error(0, wide, AS_HERE),
                         Error(0, wide, AS_HERE, {{"n", 1}})};
  const Error made[] = {Error(1, AS_HERE), Error(2, narrow.c_str(), AS_HERE), Error(3, wide, AS_HERE),
                        Error(4, shared, AS_HERE)};
  EXPECT_EQ(4, gNothrowAllocations - before);  // one each; a text of the message table is shared
  for (const Error& e : empty)
    EXPECT_TRUE(!e && !e.GetCode() && e.GetText().empty() && !*e.GetFieldNames() && !e.GetCause());
  // Other texts are copied, a narrow one widened byte by byte.
  narrow.assign(narrow.size(), 'x');
  wide.assign(wide.size(), 'x');
  EXPECT_TRUE(made[0] && made[0].GetCode() == 1 && made[0].GetText().empty());
  EXPECT_EQ((String{'g', 'o', 'n', 'e', ' ', 0xC3, 0xA9}), made[1].GetText());
  EXPECT_EQ(Str(u"a much longer wide text than any small buffer"), made[2].GetText());
  EXPECT_TRUE(made[3].GetTextAddress() == shared && made[3].GetText() == shared);
}

// Fields answer by their exact names and survive a clone (their text is unit_format's); a cause
// replaces the earlier one, on the head itself while no other handle shares it.
TEST(Error, FieldsAndCauses) {
  const Error fielded(6, Str(u"lock failed"), AS_HERE, {{"token", "SCSILocker"}, {"count", int64_t{3}}});
  EXPECT_TRUE(!fielded.GetStringField("$Module") && !fielded.GetNumericField("Count"));
  const Error copy = Error(fielded).AddPosixError(EIO, AS_HERE);
  EXPECT_STREQ("SCSILocker", copy.GetStringField("token"));
  EXPECT_STREQ("token,count,$module", copy.GetFieldNames());
  EXPECT_TRUE(copy.GetCause().GetNumericField("code") == EIO && !copy.GetCause().GetNumericField("Code"));
  EXPECT_NE((AS_LOCATION("f", 1).tag), (AS_LOCATION("f", 2).tag));
  Error a(0x530123, "open", AS_HERE);
  a.SetCause(Error(2, "first cause", AS_HERE).AddPosixError(EPERM, AS_HERE));
  const void* own = a.GetNode();
  a.AddPosixError(EIO, AS_HERE);
  EXPECT_TRUE(a.GetNode() == own && a.GetCause().GetNumericField("code") == EIO && !a.GetCause().GetCause());
  Error b;
  b = a;  // assigned, as copied, it shares the head
  a.AddPosixError(EBUSY, AS_HERE);
  EXPECT_TRUE(a.GetNode() != own && a.GetCause().GetNumericField("code") == EBUSY && b.GetNode() == own);
  EXPECT_TRUE(b.GetCause().GetNumericField("code") == EIO && a.GetLocation().tag == b.GetLocation().tag);
  const Error outer = Error(0x530040, "enumerate", AS_HERE).WithCause(b);  // shares the inner chain
  EXPECT_TRUE(outer.GetCause().GetNode() == own && outer.GetCause().GetCause().GetNumericField("code") == EIO);
  Error self(1, "self", AS_HERE);
  self.SetCause(self);  // the head is copied first: no cycle
  EXPECT_TRUE(self.GetCause().GetCode() == 1u && !self.GetCause().GetCause());
  Error chain(1, AS_HERE);
  for (int i = 0; i < 1000000; ++i) chain = Error(2, AS_HERE).WithCause(chain);
  EXPECT_EQ(2u, chain.GetCause().GetCode());
  chain = Error();  // released recursively, this would overflow the stack
  EXPECT_FALSE(chain);
  // Out of memory every error is one shared node, which never changes in place.
  gFailNothrow = true;
  Error x(0x530040, "no memory for me", AS_HERE), y(0x720022, Str(u"nor for me"), AS_HERE);
  Error z = Error().AddPosixError(EIO, AS_HERE);
  gFailNothrow = false;
  EXPECT_TRUE(x.GetNode() == y.GetNode() && x.GetNode() == z.GetNode());
  EXPECT_TRUE(x.GetCode() == Error::kPosixCode && x.GetNumericField("code") == ENOMEM);
  x.AddPosixError(EPERM, AS_HERE);
  EXPECT_TRUE(y.GetNode() != x.GetNode() && !y.GetCause() && x.GetCause().GetNumericField("code") == EPERM);
  gFailNothrow = true;
  y.AddPosixError(EPERM, AS_HERE);  // no memory even for the copy: unchanged
  gFailNothrow = false;
  EXPECT_TRUE(z.GetNode() == y.GetNode() && !y.GetCause());
}

using Common::GUID;

const char kText[] = "0123ABCD-4567-89EF-FEDC-BA9876543210";

TEST(Guid, TextBytesOrderAndSpellings) {
  GUID g, later;
  ASSERT_TRUE(GUID::Parse(kText, g) && GUID::Parse("00000000-FFFF-0000-0000-000000000000", later));
  EXPECT_TRUE(kText == g.ToString() && Common::Widen(kText) == g.ToWideString() && g.Data4[7] == 0x10);
  EXPECT_TRUE(later < g && !(g < later) && later != g);  // by the fields, not by the bytes
  uint8_t bytes[16];
  g.ToBytes(bytes);
  EXPECT_TRUE(bytes[0] == 0xCD && bytes[4] == 0x67 && bytes[8] == 0xFE && g == GUID::FromBytes(bytes));
  Common::GuidTemplate<Common::BigEndian> big;
  ASSERT_TRUE(decltype(big)::Parse(kText, big));
  big.ToBytes(bytes);
  EXPECT_TRUE(bytes[0] == 0x01 && bytes[4] == 0x45 && big == decltype(big)::FromBytes(bytes));
  const struct { const char* text; bool accepted; } cases[] = {
      {"0123abcd-4567-89ef-fedc-ba9876543210", true},   {"{0123ABCD-4567-89EF-FEDC-BA9876543210}", true},
      {"0123ABCD-4567-89EF-FEDC-BA9876543210\n", true}, {"{0123abcd-4567-89EF-fedc-BA9876543210}\n", true},
      {"", false},                                       {"0123ABCD-4567-89EF-FEDC-BA987654321", false},
      {"0123ABCD-4567-89EF-FEDC-BA98765432100", false},  {"0123ABCD-4567-89EF-FEDC-BA987654321G", false},
      {"0123ABCD 4567-89EF-FEDC-BA9876543210", false},   {"0123ABCD-4567-89EF-FEDCBA98-76543210", false},
      {"{0123ABCD-4567-89EF-FEDC-BA9876543210)", false}, {"+123ABCD-4567-89EF-FEDC-BA9876543210", false},
      {"0123ABCD-4567-89EF-FEDC-BA9876543210\n\n", false}, {"0123ABCD-4567-89EF-FEDC-BA9876543210\r\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    GUID narrow = later, wide = later;  // left alone when refused
    EXPECT_EQ(c.accepted, GUID::Parse(c.text, narrow));
    EXPECT_EQ(c.accepted, GUID::Parse(Common::Widen(c.text), wide));
    EXPECT_TRUE(narrow == (c.accepted ? g : later) && wide == narrow);
  }
  String wide = Common::Widen(kText);
  wide[0] = 0x0130;  // a unit whose low byte is '0' is still no digit
  EXPECT_FALSE(GUID::Parse(wide, g));
}

// Invalid input is ICU's to replace; here: the replacement asked for, buffers filled exactly.
TEST(Unicode, Utf8BothWays) {
  const struct { std::string utf8; String utf16; bool roundTrips; } cases[] = {
      {"", String(), true}, {"\xE2\x82\xAC", Str(u"€"), true}, {"\xF0\x9F\x92\xBE", Str(u"\U0001F4BE"), true},
      {std::string("a\0b", 3), String{'a', 0, 'b'}, true}, {"a\xFF" "b", Str(u"a\uFFFDb"), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.utf8);
    EXPECT_EQ(c.utf16, Common::FromUtf8(c.utf8));
    EXPECT_EQ(c.roundTrips, c.utf8 == Common::ToUtf8(c.utf16));
  }
  EXPECT_EQ("a\xEF\xBF\xBD" "b", Common::ToUtf8(String{'a', 0xD800, 'b'}));  // a lone surrogate
}

}  // namespace
