// The smallest host: one array through the installed headers and library.
#include <zu_data_manager/array.h>
#include <zu_data_manager/zu_data_manager.h>

#include <cstdio>

int main() {
  auto times = zu::make_vector_array<int64_t>();
  for (int64_t t = 0; t < 100; ++t) {
    if (times.append(t * 10) != zu::Status::ok) return 1;
  }
  bool ok = times.size() == 100 && times.lower_bound(455) == 46 && times.at(99) == 990;
  std::puts(ok ? "consumer: ok" : "consumer: WRONG ANSWERS");
  return ok ? 0 : 1;
}
