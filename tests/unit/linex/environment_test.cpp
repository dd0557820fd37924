#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/linex/child_env_internal.h"
#include "core/linex/create_process.h"
#include "linex_test_support.h"

namespace {

using Strings = std::vector<std::string>;

std::vector<char*> Environ(Strings& entries) {
  std::vector<char*> env;
  for (std::string& e : entries) env.push_back(&e[0]);
  env.push_back(nullptr);
  return env;
}

TEST(ChildEnvironment, Rules) {
  struct Case {
    const char* name;
    Strings parent;
    bool inherit;
    Strings overrides;
    Strings expected;
  } cases[] = {
      {"inherited as is", {"A=1", "B=2"}, true, {}, {"A=1", "B=2"}},
      {"replaced in place", {"A=1", "B=2", "C=3"}, true, {"B=x"}, {"A=1", "B=x", "C=3"}},
      {"removed", {"LD_PRELOAD=/x.so", "B=2"}, true, {"LD_PRELOAD"}, {"B=2"}},
      {"appended", {"A=1"}, true, {"Z=9"}, {"A=1", "Z=9"}},
      {"unmatched removal dropped", {"A=1"}, true, {"NOPE"}, {"A=1"}},
      {"entry without = dropped", {"A=1", "BROKEN", "C=3"}, true, {}, {"A=1", "C=3"}},
      {"last match decides", {"A=1"}, true, {"A=2", "A"}, {}},
      {"last match decides, set", {"A=1"}, true, {"A", "A=3"}, {"A=3"}},
      {"first inherited of a name only", {"A=1", "A=2"}, true, {"A=x"}, {"A=x", "A=2"}},
      {"prefix is not a match", {"AB=1"}, true, {"A=2"}, {"AB=1", "A=2"}},
      {"empty and = overrides never appended", {"A=1"}, true, {"", "=x", "=", "A=5"}, {"A=5"}},
      {"nameless entry replaced", {"=odd", "A=1"}, true, {"=x", "A=5"}, {"=x", "A=5"}},
      {"nameless entry removed", {"=odd", "A=1"}, true, {"=x", ""}, {"A=1"}},
      {"empty value", {"A=1"}, true, {"A="}, {"A="}},
      {"not inherited", {"A=1", "B=2"}, false, {"B=3", "C", "D=4"}, {"B=3", "D=4"}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto env = Environ(c.parent);
    EXPECT_EQ(LinuxEx::Detail::BuildChildEnvironment(env.data(), c.inherit, c.overrides), c.expected);
  }
  EXPECT_EQ(LinuxEx::Detail::BuildChildEnvironment(nullptr, true, {"A=1"}), Strings{"A=1"});
}

TEST(ChildEnvironment, ReachesTheChild) {
  setenv("LD_PRELOAD", "", 1);
  setenv("ZL_KEEP", "kept", 1);
  setenv("ZL_GONE", "x", 1);
  ChildProcess child;
  child.SetEnv("LD_PRELOAD");
  child.SetEnv("ZL_GONE");
  child.SetEnv("ZL_NEW=1");
  child.SetEnv("ZL_NEW=2");
  const auto result = LinexTest::Probe(child, "env");
  unsetenv("LD_PRELOAD");
  unsetenv("ZL_KEEP");
  unsetenv("ZL_GONE");
  const std::string out = "\n" + result.out;
  EXPECT_EQ(out.find("\nLD_PRELOAD="), std::string::npos);
  EXPECT_EQ(out.find("\nZL_GONE="), std::string::npos);
  EXPECT_NE(out.find("\nZL_KEEP=kept\n"), std::string::npos);
  EXPECT_EQ(out.find("ZL_NEW=1"), std::string::npos);
  EXPECT_EQ(out.substr(out.size() - 9), "ZL_NEW=2\n");
}

}  // namespace
