#include "core/common/guid.h"

#include <gtest/gtest.h>

#include "core/common/unicode.h"

namespace {

using Common::GUID;
using Common::Str;

const char kText[] = "0123ABCD-4567-89EF-FEDC-BA9876543210";

TEST(Guid, TextAndBytesRoundTrip) {
  GUID g;
  ASSERT_TRUE(GUID::Parse(kText, g));
  EXPECT_TRUE(g.Data1 == 0x0123ABCDu && g.Data2 == 0x4567 && g.Data3 == 0x89EF && g.Data4[0] == 0xFE && g.Data4[7] == 0x10);
  EXPECT_EQ(kText, g.ToString());
  EXPECT_EQ(Common::Widen(kText), g.ToWideString());
  EXPECT_TRUE(GUID().IsNull() && !g.IsNull());
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", GUID().ToString());
  uint8_t bytes[16];
  g.ToBytes(bytes);
  EXPECT_TRUE(bytes[0] == 0xCD && bytes[4] == 0x67 && bytes[8] == 0xFE && g == GUID::FromBytes(bytes));  // little-endian
  Common::GuidTemplate<Common::BigEndian> big;
  ASSERT_TRUE(decltype(big)::Parse(kText, big));
  big.ToBytes(bytes);
  EXPECT_TRUE(bytes[0] == 0x01 && bytes[4] == 0x45 && big == decltype(big)::FromBytes(bytes));
  GUID later;  // ordered by the fields, not by the bytes
  ASSERT_TRUE(GUID::Parse("00000000-FFFF-0000-0000-000000000000", later));
  EXPECT_TRUE(later < g && !(g < later) && later != g);
}

TEST(Guid, SpellingsAcceptedAndRefused) {
  GUID expected;
  ASSERT_TRUE(GUID::Parse(kText, expected));
  const struct { const char* text; bool accepted; } cases[] = {
      {"0123abcd-4567-89ef-fedc-ba9876543210", true},   {"{0123ABCD-4567-89EF-FEDC-BA9876543210}", true},
      {"0123ABCD-4567-89EF-FEDC-BA9876543210\n", true}, {"{0123abcd-4567-89EF-fedc-BA9876543210}\n", true},
      {"", false},                                       {"0123ABCD-4567-89EF-FEDC-BA987654321", false},
      {"0123ABCD-4567-89EF-FEDC-BA98765432100", false},  {"0123ABCD-4567-89EF-FEDC-BA987654321G", false},
      {"0123ABCD 4567-89EF-FEDC-BA9876543210", false},   {"0123ABCD-4567-89EF-FEDCBA98-76543210", false},
      {"{0123ABCD-4567-89EF-FEDC-BA9876543210", false},  {"0123ABCD-4567-89EF-FEDC-BA9876543210}", false},
      {"0123ABCD-4567-89EF-FEDC-BA9876543210\n\n", false}, {"0123ABCD-4567-89EF-FEDC-BA9876543210\r\n", false},
      {"+123ABCD-4567-89EF-FEDC-BA9876543210", false},   {"0123ABCD4567089EF0FEDC0BA9876543210", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    GUID narrow, wide;
    narrow.Data1 = wide.Data1 = 42;
    EXPECT_EQ(c.accepted, GUID::Parse(c.text, narrow));
    EXPECT_EQ(c.accepted, GUID::Parse(Common::Widen(c.text), wide));
    EXPECT_EQ(c.accepted ? expected.Data1 : 42u, narrow.Data1);
    EXPECT_EQ(c.accepted, expected == wide);
  }
  String wide = Common::Widen(kText);
  wide[0] = 0x0130;  // a unit whose low byte is '0' is still no digit
  EXPECT_FALSE(GUID::Parse(wide, expected));
}

TEST(Unicode, Utf8DecodingReplacesEveryInvalidSequenceAndEncodingRoundTrips) {
  const struct { const char* utf8; String utf16; bool roundTrips; } cases[] = {
      {"", String(), true},
      {"\xD0\x94\xD0\xB8\xD1\x81\xD0\xBA", Str(u"Диск"), true},
      {"\xF0\x9F\x92\xBE", Str(u"\U0001F4BE"), true},      // a surrogate pair
      {"a\xFF" "b", Str(u"a\uFFFDb"), false},                // never valid
      {"\xC3", Str(u"\uFFFD"), false},                      // truncated at the end
      {"\xE2\x82x", Str(u"\uFFFDx"), false},                // truncated in the middle
      {"\xC0\xAF", Str(u"\uFFFD\uFFFD"), false},            // overlong
      {"\xED\xA0\x80", Str(u"\uFFFD\uFFFD\uFFFD"), false},  // encoded surrogate
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.utf8);
    EXPECT_EQ(c.utf16, Common::FromUtf8(c.utf8));
    EXPECT_EQ(c.roundTrips, c.utf8 == Common::ToUtf8(c.utf16));
  }
  EXPECT_EQ((String{'a', 0, 'b'}), Common::FromUtf8(std::string_view("a\0b", 3)));
  EXPECT_EQ("a\xEF\xBF\xBD" "b", Common::ToUtf8(String{'a', 0xD800, 'b'}));  // a lone surrogate
  EXPECT_EQ((String{0x00, 0x7F, 0x80, 0xFF}), Common::Widen(std::string_view("\x00\x7F\x80\xFF", 4)));
  EXPECT_EQ(0u, Common::Length(nullptr));
  EXPECT_EQ(3u, Common::Length(Str(u"abc").c_str()));
}

}  // namespace
