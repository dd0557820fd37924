#include "core/common/guid.h"

#include <gtest/gtest.h>

#include "core/common/unicode.h"

namespace {

using Common::GUID;

const char kText[] = "0123ABCD-4567-89EF-FEDC-BA9876543210";

TEST(Guid, TextAndBytesRoundTrip) {
  GUID g;
  ASSERT_TRUE(GUID::Parse(kText, g));
  EXPECT_EQ(0x0123ABCDu, g.Data1);
  EXPECT_EQ(0x4567, g.Data2);
  EXPECT_EQ(0x89EF, g.Data3);
  EXPECT_EQ(0xFE, g.Data4[0]);
  EXPECT_EQ(0x10, g.Data4[7]);
  EXPECT_EQ(kText, g.ToString());
  EXPECT_EQ(Common::Widen(kText), g.ToWideString());
  EXPECT_FALSE(g.IsNull());
  EXPECT_TRUE(GUID().IsNull());
  EXPECT_EQ("00000000-0000-0000-0000-000000000000", GUID().ToString());

  uint8_t bytes[16];
  g.ToBytes(bytes);
  EXPECT_EQ(0xCD, bytes[0]);  // Data1 little-endian
  EXPECT_EQ(0x67, bytes[4]);
  EXPECT_EQ(0xFE, bytes[8]);
  EXPECT_EQ(g, GUID::FromBytes(bytes));
  Common::GuidTemplate<Common::BigEndian> big;
  ASSERT_TRUE(decltype(big)::Parse(kText, big));
  big.ToBytes(bytes);
  EXPECT_EQ(0x01, bytes[0]);
  EXPECT_EQ(0x45, bytes[4]);
  EXPECT_EQ(big, decltype(big)::FromBytes(bytes));

  GUID later;  // ordered by the fields, not by the bytes
  ASSERT_TRUE(GUID::Parse("00000000-FFFF-0000-0000-000000000000", later));
  EXPECT_TRUE(later < g && !(g < later) && later != g);
}

TEST(Guid, SpellingsAcceptedAndRefused) {
  GUID expected;
  ASSERT_TRUE(GUID::Parse(kText, expected));
  const struct {
    const char* text;
    bool accepted;
  } cases[] = {
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
  GUID g;
  EXPECT_FALSE(GUID::Parse(wide, g));
}

}  // namespace
