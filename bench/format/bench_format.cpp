// Core::FormatString against ICU's per-call MessageFormat::format (which also parses
// the pattern on every call) on the same UTF-16 patterns, and the narrow engine
// against snprintf.
#include <benchmark/benchmark.h>

#include <unicode/fmtable.h>
#include <unicode/msgfmt.h>
#include <unicode/unistr.h>

#include <cstdio>
#include <string>

#include "processor/format/format_string.h"

namespace {

struct Pattern {
  const char16_t* text;
  int value;
};

// Plain placeholders, a number style, a choice, and a placeholder nested in a choice.
const Pattern kPatterns[] = {
    {u"Disk {0} of host {1} has {2} partitions", 3},
    {u"Failed with code 0x{0,number,hex}", 0xBD08B0},
    {u"{0,choice,0#no files|1#one file|1<many files}", 7},
    {u"{0,choice,0#no files|1#one file|1<{0} files}", 7},
};

void Ours(benchmark::State& state) {
  const Pattern& p = kPatterns[state.range(0)];
  const String pattern(p.text, p.text + std::char_traits<char16_t>::length(p.text));
  const String disk{'s', 'd', 'b'};
  String out;
  for (auto _ : state) {
    out = state.range(0) == 0 ? Core::FormatString(pattern, disk, p.value, 2) : Core::FormatString(pattern, p.value);
    benchmark::DoNotOptimize(out);
  }
  state.SetLabel(Core::Detail::NarrowFromWide(out.data(), out.size()));
}

void Icu(benchmark::State& state) {
  const Pattern& p = kPatterns[state.range(0)];
  const icu::UnicodeString pattern(p.text);
  const icu::Formattable plain[] = {icu::Formattable(icu::UnicodeString(u"sdb")), icu::Formattable(p.value),
                                    icu::Formattable(2)};
  const icu::Formattable one[] = {icu::Formattable(p.value)};
  const icu::Formattable* args = state.range(0) == 0 ? plain : one;
  const int32_t count = state.range(0) == 0 ? 3 : 1;
  UErrorCode last = U_ZERO_ERROR;
  icu::UnicodeString shown;
  for (auto _ : state) {
    icu::UnicodeString out;
    UErrorCode status = U_ZERO_ERROR;
    icu::MessageFormat::format(pattern, args, count, out, status);
    benchmark::DoNotOptimize(out);
    last = status;
    shown = out;
  }
  std::string label;
  shown.toUTF8String(label);
  state.SetLabel(U_SUCCESS(last) ? label : std::string("ICU error: ") + u_errorName(last));
}

void NarrowOurs(benchmark::State& state) {
  for (auto _ : state) {
    std::string out = Core::FormatString("/sys/block/{0}/device/scsi_disk/{1}:{2}:{3}:{4}", "sdb", 2, 0, 1, 0);
    benchmark::DoNotOptimize(out);
  }
}

void NarrowSnprintf(benchmark::State& state) {
  for (auto _ : state) {
    char buffer[256];
    const int n = std::snprintf(buffer, sizeof buffer, "/sys/block/%s/device/scsi_disk/%d:%d:%d:%d", "sdb", 2, 0, 1, 0);
    std::string out(buffer, static_cast<size_t>(n));
    benchmark::DoNotOptimize(out);
  }
}

}  // namespace

BENCHMARK(Ours)->DenseRange(0, 3);
BENCHMARK(Icu)->DenseRange(0, 3);
BENCHMARK(NarrowOurs);
BENCHMARK(NarrowSnprintf);

BENCHMARK_MAIN();
