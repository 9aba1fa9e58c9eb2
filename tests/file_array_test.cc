// The file array through IZUArray: searches on sorted data (exact ones against the standard
// algorithms, coarse ones against their sample-based definition), segment heads, full disks
// (injected and real), and the life cycle of its files.
#include "src/file/file_array.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fault_platform.h"
#include "tests/support/temp_dir.h"
#include "zu_data_manager/zu_data_manager.h"

namespace zu_test {
namespace {

using zu::CZUFileArray;
using zu::CZUFileArrayImp;
using zu::CZUMultiFileArrayImp;

template <typename T>
std::unique_ptr<IZUArray> MakeFileArray() {
  CArrayFactory factory;
  return std::unique_ptr<IZUArray>(factory.AllocFileArray(static_cast<int>(sizeof(T))));
}

// Ascending values with runs of equal elements; signed types start below zero.
template <typename T>
std::vector<T> SortedValues(size_t n) {
  std::vector<T> values(n);
  const double span = static_cast<double>(
      std::numeric_limits<T>::max() < 0xFFFFFF ? std::numeric_limits<T>::max() - 2 : 3 * n);
  const double low = std::is_signed<T>::value ? -static_cast<double>(n) : 1.0;
  for (size_t i = 0; i < n; ++i) {
    values[i] = static_cast<T>(low + span * static_cast<double>(i) / static_cast<double>(n));
  }
  return values;
}

template <typename T>
class CZUFileArraySearch : public ::testing::Test {};
using IntegerTypes = ::testing::Types<uint8_t, uint16_t, uint32_t, int64_t>;
TYPED_TEST_SUITE(CZUFileArraySearch, IntegerTypes);

TYPED_TEST(CZUFileArraySearch, ExactAndCoarseAnswersWithinASegment) {
  using T = TypeParam;
  TempDataDir dir;
  const uint64_t chunk = CZUFileArrayImp<T>::kChunkLength;
  const std::vector<T> v = SortedValues<T>(2 * chunk + chunk / 2 + 3);
  const uint64_t n = v.size();
  auto array = MakeFileArray<T>();
  ASSERT_EQ(array->AppendBuffer(v.data(), n), kZuOk);
  ASSERT_EQ(array->GetSize(), n);
  const uint64_t interval = zu::CZUFileArrayImp<T>(/*probe*/).sample_interval();

  std::vector<T> probes;
  for (uint64_t k = 0; k <= 400; ++k) {
    T x = v[std::min<uint64_t>(n - 1, k * n / 400)];
    probes.push_back(x);
    if (x != std::numeric_limits<T>::max()) probes.push_back(static_cast<T>(x + 1));
    if (x != std::numeric_limits<T>::min()) probes.push_back(static_cast<T>(x - 1));
  }
  probes.push_back(std::numeric_limits<T>::min());
  probes.push_back(static_cast<T>(v.back() + 1));

  for (T x : probes) {
    SCOPED_TRACE(::testing::Message() << "value " << static_cast<int64_t>(x));
    const uint64_t lb = std::lower_bound(v.begin(), v.end(), x) - v.begin();
    const uint64_t ub = std::upper_bound(v.begin(), v.end(), x) - v.begin();
    EXPECT_EQ(array->LowerBound(&x), lb);
    // At or above the last element of the (only) segment: the next segment's start.
    EXPECT_EQ(array->UpperBound(&x), ub < n ? ub : CZUMultiFileArrayImp<T>::kSegmentCapacity);
    EXPECT_EQ(array->Find(&x), lb < n && v[lb] == x ? lb : n);

    // Coarse: the first sampled position whose element is not below x.
    uint64_t located = (n + interval - 1) / interval * interval;
    for (uint64_t j = 0; j < n; j += interval) {
      if (!(v[j] < x)) {
        located = j;
        break;
      }
    }
    EXPECT_EQ(array->LocateLowerBound(&x), located);
    uint64_t floor;
    if (located > n) {
      floor = (n - 1) / interval * interval;
    } else if ((located < n ? v[located] : static_cast<T>(~T{0})) == x) {
      floor = located;
    } else {
      floor = located == 0 ? n : located - interval;
    }
    EXPECT_EQ(array->FindFloor(&x), floor);

    // A tolerance of 0 never accepts a sample: the exact lower bound, value untouched.
    T nearest = x;
    EXPECT_EQ(array->FindNearest(&nearest, 0), lb);
    EXPECT_EQ(nearest, x);
    // A wide tolerance answers with a neighbouring sample and hands its value out.
    nearest = x;
    const uint64_t r = array->FindNearest(&nearest, uint64_t{1} << 62);
    if (!(v[0] < x)) {
      EXPECT_EQ(r, 0u);
      EXPECT_EQ(nearest, x);
    } else {
      EXPECT_EQ(r % interval, 0u);
      ASSERT_LT(r, n);
      EXPECT_EQ(nearest, v[r]);
      EXPECT_LE(r > lb ? r - lb : lb - r, interval);
    }
  }
}

TEST(CZUFileArray, ToleranceIsComparedStrictlyAgainstTheNeighbouringSamples) {
  TempDataDir dir;
  auto array = MakeFileArray<uint32_t>();
  std::vector<uint32_t> v(3 * CZUFileArrayImp<uint32_t>::kChunkLength);
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint32_t>(i * 10);
  ASSERT_EQ(array->AppendBuffer(v.data(), v.size()), kZuOk);
  const uint32_t interval = static_cast<uint32_t>(CZUFileArrayImp<uint32_t>().sample_interval());
  uint32_t x = v[interval] + 5;  // 5 above the sample before it
  EXPECT_EQ(array->FindNearest(&x, 5), interval + 1u);
  EXPECT_EQ(x, v[interval] + 5);
  EXPECT_EQ(array->FindNearest(&x, 6), interval);
  EXPECT_EQ(x, v[interval]);
  x = v[2 * interval] - 3;  // 3 below the sample after it
  EXPECT_EQ(array->FindNearest(&x, 4), 2u * interval);
  EXPECT_EQ(x, v[2 * interval]);
  // Past every sample of a chunk the next chunk's boundary sample is the candidate.
  const uint32_t chunk = CZUFileArrayImp<uint32_t>::kChunkLength;
  x = v[chunk] - 2;
  EXPECT_EQ(array->FindNearest(&x, 3), chunk);
  EXPECT_EQ(x, v[chunk]);
}

TEST(CZUFileArray, SegmentHeadsSteerTheSearchesAcrossFiles) {
  TempDataDir dir;
  const uint64_t s = CZUMultiFileArrayImp<uint8_t>::kSegmentCapacity;
  const uint64_t interval = CZUFileArrayImp<uint8_t>().sample_interval();
  std::vector<uint8_t> v(s + 6, 10);
  std::fill(v.begin() + s, v.end(), 20);
  auto array = MakeFileArray<uint8_t>();
  ASSERT_EQ(array->AppendBuffer(v.data(), v.size()), kZuOk);
  EXPECT_EQ(dir.CountFiles(), 2);
  uint8_t x = 25;
  EXPECT_EQ(array->LowerBound(&x), s + 6);
  EXPECT_EQ(array->UpperBound(&x), 2 * s) << "at or above the last element: the next start";
  x = 20;
  EXPECT_EQ(array->LowerBound(&x), s);
  EXPECT_EQ(array->UpperBound(&x), 2 * s);
  x = 10;
  EXPECT_EQ(array->UpperBound(&x), s) << "the start of the next segment";
  // Beyond the last sample of a later segment the coarse floor counts from that segment's
  // own start.
  x = 30;
  EXPECT_EQ(array->FindFloor(&x), 0u);
  x = 15;
  EXPECT_EQ(array->FindFloor(&x), s - interval);

  // Setting element S also moves the second segment's head.
  x = 30;
  array->SetAt(s, &x);
  uint8_t out = 0;
  EXPECT_EQ(*static_cast<uint8_t*>(array->GetAt(s, &out)), 30);
  x = 25;
  EXPECT_EQ(array->LowerBound(&x), s) << "the head 30 now sends 25 into the first segment";
  array->CopyOut(&out, static_cast<int>(s), 1);
  EXPECT_EQ(out, 30) << "in the last chunk the file changes too";

  // Outside the last chunk only the sample changes.
  x = 7;
  array->SetAt(0, &x);
  EXPECT_EQ(*static_cast<uint8_t*>(array->GetAt(0, &out)), 7);
  array->CopyOut(&out, 0, 1);
  EXPECT_EQ(out, 10);
}

TEST(CZUFileArray, FilesFollowTheArrayLifeCycle) {
  TempDataDir dir;
  auto array = MakeFileArray<uint16_t>();
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(dir.CountFiles(), 0) << "Init makes no file";
  uint16_t out = 0;
  uint16_t x = 5;
  EXPECT_EQ(array->GetAt(0, &out), nullptr);
  EXPECT_EQ(*static_cast<uint16_t*>(array->GetLast(&out)), 0xFFFF) << "the all-ones element";
  EXPECT_EQ(array->LowerBound(&x), 0u);
  EXPECT_EQ(array->FindFloor(&x), 0u);
  EXPECT_EQ(array->Append(&x), kZuOk);
  EXPECT_EQ(dir.CountFiles(), 1);
  EXPECT_EQ(*static_cast<uint16_t*>(array->GetLast(&out)), 5);

  base::DictionaryValue* saved = nullptr;
  ASSERT_TRUE(array->SaveDescription(&saved));
  std::unique_ptr<base::DictionaryValue> owned(saved);
  auto reloaded = MakeFileArray<uint16_t>();
  EXPECT_TRUE(reloaded->LoadDescription(owned.get()));
  EXPECT_EQ(reloaded->GetSize(), 1u);
  base::DictionaryValue no_files;
  EXPECT_FALSE(reloaded->LoadDescription(&no_files));
  EXPECT_EQ(reloaded->GetSize(), 0u);

  array->Clear();
  EXPECT_EQ(dir.CountFiles(), 0);
  EXPECT_EQ(array->Append(&x), kZuOk);
  array.reset();
  EXPECT_EQ(dir.CountFiles(), 0);
}

TEST(CZUFileArray, InjectedFullDiskKeepsCompletedSegments) {
  TempDataDir dir;
  FaultPlatform faults;
  const uint64_t s = CZUMultiFileArrayImp<uint8_t>::kSegmentCapacity;
  std::vector<uint8_t> v(s + 2 * CZUFileArrayImp<uint8_t>::kChunkLength);
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>(i * 31 + i / 4096);
  auto array = MakeFileArray<uint8_t>();
  faults.Fail(FaultOp::kCreateMapping, 2);  // the second segment cannot grow
  EXPECT_EQ(array->AppendBuffer(v.data(), v.size()), kZuNoSpace);
  ASSERT_EQ(array->GetSize(), s) << "the failing segment reads as empty";
  std::vector<uint8_t> back(s);
  array->CopyOut(back.data(), 0, static_cast<unsigned int>(s));
  EXPECT_TRUE(std::equal(back.begin(), back.end(), v.begin()));

  array->Clear();  // a dead segment: the whole storage is replaced
  EXPECT_EQ(array->GetSize(), 0u);
  EXPECT_EQ(dir.CountFiles(), 0);
  EXPECT_EQ(array->AppendBuffer(v.data(), 1000), kZuOk);
  EXPECT_EQ(array->GetSize(), 1000u);
}

// A small real file system comes from a tmpfs in a mount namespace: POSIX only (the DiskFull
// suite, also POSIX only, covers the rest of a full disk).
#ifndef _WIN32
// Runs in a child process inside its own mount namespace, on a small tmpfs.
void FillSmallFileSystem(const std::string& mount) {
  const std::wstring previous = IZUArray::GetDataDirectory();
  IZUArray::SetDataDirectory(std::filesystem::path(mount + "/data").wstring());
  const size_t mib = 1 << 20;
  std::vector<uint8_t> block(mib, 0x5A);
  {
    auto array = MakeFileArray<uint8_t>();
    std::vector<uint8_t> big(16 * mib, 1);
    EXPECT_EQ(array->AppendBuffer(big.data(), big.size()), kZuNoSpace);
    EXPECT_EQ(array->GetSize(), 0u);
    array->Clear();
    int rc = kZuOk;
    int blocks = 0;
    while (rc == kZuOk && blocks < 64) {
      rc = array->AppendBuffer(block.data(), block.size());
      if (rc == kZuOk) ++blocks;
    }
    EXPECT_EQ(rc, kZuNoSpace);
    EXPECT_GT(blocks, 0);
    EXPECT_EQ(array->GetSize(), 0u) << "the failing segment is reset";
  }
  EXPECT_TRUE(std::filesystem::is_empty(mount + "/data"));
  IZUArray::SetDataDirectory(previous);
}

TEST(CZUFileArray, RealFullDiskReportsNoSpaceWithoutAFault) {
  if (const char* mount = std::getenv("ZU_TEST_SMALL_FS")) {
    FillSmallFileSystem(mount);
    return;
  }
  if (std::system("unshare -m true >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "mount namespaces are not available (unshare -m refused)";
  }
  TempDataDir dir;
  const std::string exe = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string mount = dir.path().string();
  const std::string command =
      "unshare -m sh -c 'mount -t tmpfs -o size=8m zu_small " + mount +
      " || exit 77; ZU_TEST_SMALL_FS=" + mount + " exec " + exe +
      " --gtest_filter=CZUFileArray.RealFullDiskReportsNoSpaceWithoutAFault' >/dev/null 2>&1";
  const int status = std::system(command.c_str());
  const int code = (status >> 8) & 0xFF;
  if (code == 77) GTEST_SKIP() << "mounting a tmpfs was refused";
  EXPECT_EQ(status, 0) << "the child on a full tmpfs failed or crashed";
}
#endif  // _WIN32

}  // namespace
}  // namespace zu_test
