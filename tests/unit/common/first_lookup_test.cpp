// The first message lookup of a process subscribes to language changes; a caller's
// errno must come through it unchanged. This runs in a program of its own so that
// the lookup here is really the first.
#include <gtest/gtest.h>

#include <cerrno>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"

namespace {

TEST(FirstLookup, KeepsErrno) {
  errno = 12345;
  const unsigned short* text = GetTextFromMessageFile(Messages::DiskIsFull);
  EXPECT_EQ(12345, errno);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ('T', text[0]);
}

}  // namespace
