// The smallest host: one array through the installed headers and library, built as C++20 (a
// package that forced C++17 on it would lose std::span).
#include <zu_data_manager/array.h>
#include <zu_data_manager/zu_data_manager.h>

#include <array>
#include <cstdio>
#include <span>

int main() {
  auto times = zu::make_vector_array<int64_t>();
  std::array<int64_t, 100> values{};
  for (int64_t t = 0; t < 100; ++t) values[t] = t * 10;
  if (times.append(std::span<const int64_t>(values)) != zu::Status::ok) return 1;
  bool ok = times.size() == 100 && times.lower_bound(455) == 46 && times[99] == 990;
  std::puts(ok ? "consumer: ok" : "consumer: WRONG ANSWERS");
  return ok ? 0 : 1;
}
