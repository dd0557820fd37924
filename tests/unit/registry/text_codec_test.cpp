#include "registry/impl/text_codec.h"

#include <gtest/gtest.h>

#include "core/common/unicode.h"

namespace {

using Registry::Impl::DecodeText;
using Registry::Impl::EncodeText;

String Units(std::initializer_list<unsigned short> units) { return String(units); }

TEST(RegistryTextCodec, HostileTextsSurviveAndLeaveNoRawControls) {
  const String cases[] = {
      String(),
      Common::Str(u"<&>\"' ]]> plain"),
      Common::Str(u"C:\\dir\\\\u0041"),
      Common::Str(u"\U0001F600 non-BMP \U00010348"),
      Units({0, 1, '\t', '\n', '\r', 0x1F, 0x7F}),
      Units({0xD800, 'a', 0xDC00, 0xDBFF}),  // unpaired surrogates
      Units({0xFFFE, 0xFFFF, 0xFFFD}),
      Common::Str(u"  leading and trailing  "),
  };
  for (const String& text : cases) {
    SCOPED_TRACE(Common::ToUtf8(text));
    const std::string encoded = EncodeText(text);
    for (unsigned char c : encoded) EXPECT_GE(c, 0x20u);
    String decoded;
    ASSERT_TRUE(DecodeText(encoded, decoded));
    EXPECT_EQ(decoded, text);
  }
  EXPECT_EQ(EncodeText(Common::Str(u"a\\b\n")), "a\\\\b\\u000A");
}

TEST(RegistryTextCodec, RefusesMalformedText) {
  const char* cases[] = {
      "\\", "a\\x", "\\u12", "\\u12G4", "\\U0041",
      "\xC0\xAF",       // overlong "/"
      "\xED\xA0\x80",   // an encoded surrogate
      "\xFF", "abc\xE2\x82",
  };
  for (const char* text : cases) {
    SCOPED_TRACE(text);
    String decoded = Common::Str(u"kept");
    EXPECT_FALSE(DecodeText(text, decoded));
    EXPECT_EQ(decoded, Common::Str(u"kept"));
  }
  String decoded;
  ASSERT_TRUE(DecodeText("\\u00e9\\\\", decoded));
  EXPECT_EQ(decoded, Common::Str(u"\u00e9\\"));
}

}  // namespace
