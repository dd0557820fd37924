// The process-wide formatting singleton.
#include <atomic>
#include <mutex>

#include <unicode/datefmt.h>

#include "processor/format/impl/formatters.h"
#include "processor/format/impl/message_format_impl.h"

namespace Processor {

namespace {

std::atomic<FormatersHolder*> gHolder{nullptr};
std::atomic<bool> gUnloaded{false};
std::once_flag gMade;

FormatersHolder& LateHolder() {
  // Formatting from static destructors that run after the unload: made once, never freed.
  static FormatersHolder* late = new FormatersHolder;
  return *late;
}

}  // namespace

FormatersHolder::FormatersHolder()
    : defaultNumber_(MakeDefaultNumberFormat(false)),
      sizeNumber_(MakeDefaultNumberFormat(true)),
      engine_(std::make_unique<MessageFormatImpl>(*this)) {}

FormatersHolder::~FormatersHolder() = default;

FormatersHolder& FormatersHolder::Get() {
  if (gUnloaded.load(std::memory_order_acquire)) return LateHolder();
  std::call_once(gMade, [] { gHolder.store(new FormatersHolder, std::memory_order_release); });
  return *gHolder.load(std::memory_order_acquire);
}

void FormatersHolder::Shutdown() noexcept {
  if (gUnloaded.exchange(true, std::memory_order_acq_rel)) return;
  delete gHolder.exchange(nullptr, std::memory_order_acq_rel);
}

}  // namespace Processor
