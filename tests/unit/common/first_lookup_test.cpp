// A program of its own, so that its lookup is really the process's first: that one
// subscribes to language changes and must keep the caller's errno.
#include <gtest/gtest.h>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"

TEST(FirstLookup, KeepsErrno) {
  errno = 12345;
  const unsigned short* text = GetTextFromMessageFile(Messages::DiskIsFull);
  EXPECT_EQ(12345, errno);
  ASSERT_NE(nullptr, text);
  EXPECT_EQ('T', text[0]);
}
