// The multi-file storage: segment borders, cross-border reads, dummies, descriptions through
// JSON text, and a segment whose file cannot be created.
#include "src/file/multi_file_storage.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/fault_platform.h"
#include "tests/support/file_test_util.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_values.h"

namespace zu_test {
namespace {

using zu::CZUMultiFileArrayImp;

TEST(CZUMultiFileArrayImp, OneElementPastASegmentOpensTheSecondFile) {
  TempDataDir dir;
  using Storage = CZUMultiFileArrayImp<uint8_t>;
  const uint64_t s = Storage::kSegmentCapacity;
  std::vector<uint8_t> values(s + 1);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(i % 253);
  values[s] = 200;
  Storage storage;
  AppendBulk(storage, values);
  EXPECT_EQ(dir.CountFiles(), 2);
  ASSERT_EQ(storage.SegmentCount(), 2u);
  EXPECT_EQ(storage.segment(1).GetSize(), 1);
  EXPECT_EQ(storage.segment_heads(), (std::vector<uint8_t>{values[0], values[s]}));
  EXPECT_EQ(*storage.GetReadPtr(s), 200);
  EXPECT_EQ(*storage.GetBackReadPtr(), 200);

  std::vector<uint8_t> border(20);
  int64_t count = 20;
  storage.ReadData(border.data(), s - 10, count);
  EXPECT_EQ(count, 11) << "stops at the end";
  EXPECT_TRUE(std::equal(border.begin(), border.begin() + 11, values.end() - 11));
  EXPECT_EQ(*storage.GetReadPtr(s + 1), 0xFF) << "dummy beyond the end";
  EXPECT_EQ(*storage.GetWritePtr(s + 1), 0xFF);
  for (int64_t offset : {int64_t(s + 1), int64_t(s + 2)}) {
    count = 5;
    storage.ReadData(border.data(), offset, count);
    EXPECT_EQ(count, 0);
  }
  storage.Clear();
  EXPECT_EQ(storage.GetSize(), 0);
  EXPECT_EQ(dir.CountFiles(), 0);
  EXPECT_EQ(*storage.GetBackReadPtr(), 0xFF);
}

TEST(CZUMultiFileArrayImp, SingleAppendsOpenSegmentsToo) {
  TempDataDir dir;
  using Record = SimpleBigData<512>;
  using Storage = CZUMultiFileArrayImp<Record>;
  const uint64_t s = Storage::kSegmentCapacity;
  Storage storage;
  for (uint64_t i = 0; i <= s; ++i) storage.PushBack(MakeValue<Record>(i));
  ASSERT_EQ(storage.SegmentCount(), 2u);
  EXPECT_TRUE(storage.segment_heads()[1] == MakeValue<Record>(s));
  EXPECT_TRUE(*storage.GetReadPtr(s - 1) == MakeValue<Record>(s - 1));
  EXPECT_TRUE(*storage.GetReadPtr(s) == MakeValue<Record>(s));
  EXPECT_EQ(storage.LowerBound(MakeValue<Record>(s)), s);
  EXPECT_EQ(storage.LowerBound(MakeValue<Record>(12345)), 12345u);
}

TEST(CZUMultiFileArrayImp, DescriptionsSurviveJsonAndReattach) {
  TempDataDir dir;
  using Storage = CZUMultiFileArrayImp<uint32_t>;
  std::vector<uint32_t> values(3 * Storage::Segment::kChunkLength + 17);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint32_t>(i * 5);
  Storage original;
  AppendBulk(original, values);
  std::unique_ptr<base::DictionaryValue> saved(original.SaveDescription());
  const std::string json = base::WriteJson(*saved);
  std::unique_ptr<base::DictionaryValue> loaded = base::ReadJsonDictionary(json);
  ASSERT_NE(loaded, nullptr) << json;

  Storage copy;
  ASSERT_TRUE(copy.LoadDescription(*loaded));
  EXPECT_EQ(ReadAll<uint32_t>(copy), values);
  EXPECT_EQ(copy.segment_heads(), std::vector<uint32_t>{0});
  EXPECT_EQ(copy.LowerBound(values[777]), 777u);
  EXPECT_EQ(dir.CountFiles(), 1) << "the copy gave up its own fresh file";

  // Loading stops at the first entry that cannot be attached (here: a file the library did
  // not make, which stays untouched) and keeps what came before it.
  base::ListValue* files = nullptr;
  ASSERT_TRUE(loaded->GetList("files", &files));
  base::DictionaryValue* good = nullptr;
  ASSERT_TRUE(files->GetDictionary(0, &good));
  base::DictionaryValue crafted;
  auto* list = new base::ListValue();
  auto* bogus = new base::DictionaryValue();
  bogus->SetString("file_path", std::string("/etc/passwd"));
  bogus->SetInteger("size", 1);
  list->Append(bogus);
  list->Append(good->DeepCopy());
  crafted.Set("files", list);
  Storage partial;
  EXPECT_TRUE(partial.LoadDescription(crafted));
  EXPECT_EQ(partial.SegmentCount(), 0u);

  // A partly filled entry does not end the load: every attachable entry becomes a segment.
  base::DictionaryValue twice;
  auto* both = new base::ListValue();
  both->Append(good->DeepCopy());
  both->Append(good->DeepCopy());
  twice.Set("files", both);
  Storage doubled;
  EXPECT_TRUE(doubled.LoadDescription(twice));
  EXPECT_EQ(doubled.SegmentCount(), 2u);
  EXPECT_EQ(static_cast<uint64_t>(doubled.GetSize()), 2 * values.size());

  base::DictionaryValue empty;
  Storage none;
  AppendBulk(none, values);
  EXPECT_FALSE(none.LoadDescription(empty));
  EXPECT_EQ(none.GetSize(), 0) << "loading clears first";
}

TEST(CZUMultiFileArrayImp, ASegmentWithoutAFileRefusesRangesAndIgnoresSingles) {
  TempDataDir dir;
  using Storage = CZUMultiFileArrayImp<uint16_t>;
  FaultPlatform faults;
  faults.Fail(FaultOp::kCreateFile, 1, /*forever=*/true);
  Storage storage;
  std::vector<uint16_t> values(100, 7);
  EXPECT_THROW(AppendBulk(storage, values), ZuArrayNoSpaceException);
  storage.PushBack(3);
  EXPECT_EQ(storage.GetSize(), 0);
  EXPECT_TRUE(storage.HasDeadSegment());
  AppendBulk(storage, values);  // the dead segment stays last: nothing more is taken
  EXPECT_EQ(storage.GetSize(), 0);
}

}  // namespace
}  // namespace zu_test
