#include "src/platform/platform.h"

#include <atomic>

namespace zu {
namespace platform {

namespace {
std::atomic<Platform*> g_current{nullptr};    // null means Native()
std::atomic<DiagnosticSink> g_sink{nullptr};  // null means the OS default
}  // namespace

// Defined by the OS backend: where a diagnostic goes when the host installed no sink.
void DefaultDiagnostic(const char* message);

Platform& Current() {
  Platform* p = g_current.load(std::memory_order_acquire);
  return p != nullptr ? *p : Native();
}

void SetCurrentForTesting(Platform* platform) {
  g_current.store(platform, std::memory_order_release);
}

void SetDiagnosticSink(DiagnosticSink sink) { g_sink.store(sink); }

void EmitDiagnostic(const char* message) {
  DiagnosticSink sink = g_sink.load();
  if (sink != nullptr) {
    sink(message);
  } else {
    DefaultDiagnostic(message);
  }
}

}  // namespace platform
}  // namespace zu
