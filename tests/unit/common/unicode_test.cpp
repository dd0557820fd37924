#include "core/common/unicode.h"

#include <gtest/gtest.h>

namespace {

using Common::Str;

TEST(Unicode, Utf8DecodingReplacesEveryInvalidSequenceAndEncodingRoundTrips) {
  const struct {
    const char* utf8;
    String utf16;
    bool roundTrips;
  } cases[] = {
      {"", String(), true},
      {"plain", Str(u"plain"), true},
      {"\xD0\x94\xD0\xB8\xD1\x81\xD0\xBA", Str(u"Диск"), true},
      {"\xF0\x9F\x92\xBE", Str(u"\U0001F4BE"), true},       // a surrogate pair
      {"a\xFF" "b", Str(u"a\uFFFDb"), false},                 // never valid
      {"\xC3", Str(u"\uFFFD"), false},                       // truncated at the end
      {"\xE2\x82x", Str(u"\uFFFDx"), false},                 // truncated in the middle
      {"\xC0\xAF", Str(u"\uFFFD\uFFFD"), false},             // overlong
      {"\xED\xA0\x80", Str(u"\uFFFD\uFFFD\uFFFD"), false},   // encoded surrogate
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.utf8);
    EXPECT_EQ(c.utf16, Common::FromUtf8(c.utf8));
    EXPECT_EQ(c.roundTrips, c.utf8 == Common::ToUtf8(c.utf16));
  }
  EXPECT_EQ((String{'a', 0, 'b'}), Common::FromUtf8(std::string_view("a\0b", 3)));
  EXPECT_EQ("a\xEF\xBF\xBD" "b", Common::ToUtf8(String{'a', 0xD800, 'b'}));  // a lone surrogate
}

TEST(Unicode, WideningKeepsEveryByte) {
  EXPECT_EQ((String{0x00, 0x7F, 0x80, 0xFF}), Common::Widen(std::string_view("\x00\x7F\x80\xFF", 4)));
  EXPECT_EQ(0u, Common::Length(nullptr));
  EXPECT_EQ(3u, Common::Length(Str(u"abc").c_str()));
}

}  // namespace
