// storagectl speaks the language of the locale: the same failure, codes and places alike.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "fake_machine.h"

namespace {

using FakeMachineTesting::operator""_GiB;

// storagectl's standard error for `prepare sdb` (refused: it has partitions) with only the given
// locale variables set; the build tree's storagectl finds the catalogues built beside it.
std::string PrepareUnreadable(const std::string& locale) {
  const std::string command = "env -u LC_ALL -u LC_MESSAGES -u LANG -u LANGUAGE -u ZEMLORA_RESOURCE_DIR " + locale +
                              " " STORAGECTL " prepare sdb --yes 2>/tmp/e";
  EXPECT_NE(-1, std::system(command.c_str()));
  std::string err;
  FakeMachineTesting::ReadText("/tmp/e", err);
  return err;
}

TEST(StoragectlLanguage, TheLocaleChoosesTheTextsAndNothingElse) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).Serial("6000c2900000000000000000000000b0")
      .Partition(1, 2048, 204800).Partition(2, 206848, 204800);
  m.Build();
  const std::string english = PrepareUnreadable("LANG=C");
  EXPECT_NE(english.find("\n  cause 0x72004A: "), std::string::npos) << english;
  const struct { const char* locale; bool russian; } cases[] = {
      {"LANG=ru_RU.UTF-8", true}, {"LC_MESSAGES=ru_RU.UTF-8 LANG=C", true},
      {"LC_ALL=POSIX LANG=ru_RU.UTF-8", false}, {"LANG=de_DE.UTF-8", false}, {"", false},
  };
  // The text of a line lies between "0x...: " and the place, " (file, function, line N)".
  const std::regex text(": [^\n]*( \\([^\n(]*, line [0-9]+\\)\n)");
  for (const auto& c : cases) {
    SCOPED_TRACE(*c.locale ? c.locale : "no locale");
    const std::string err = PrepareUnreadable(c.locale);
    EXPECT_EQ(std::regex_replace(english, text, "$1"), std::regex_replace(err, text, "$1"));
    EXPECT_EQ(c.russian, err != english) << err;
  }
}

}  // namespace
