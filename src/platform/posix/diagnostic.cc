#include <cstdio>

#include "src/platform/platform.h"

namespace zu {
namespace platform {

void DefaultDiagnostic(const char* message) {
  std::fprintf(stderr, "zu_data_manager: %s\n", message);
}

}  // namespace platform
}  // namespace zu
