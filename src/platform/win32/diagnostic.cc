#include <windows.h>

#include "src/platform/platform.h"

namespace zu {
namespace platform {

// The debugger output, where a Windows host looks for a library's diagnostics.
void DefaultDiagnostic(const char* message) { OutputDebugStringA(message); }

}  // namespace platform
}  // namespace zu
