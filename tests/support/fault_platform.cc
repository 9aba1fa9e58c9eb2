#include "tests/support/fault_platform.h"

namespace zu_test {

using zu::platform::IoStatus;
using zu::platform::kInvalidFile;
using zu::platform::kNoMapping;

FaultPlatform::FaultPlatform() : native_(zu::platform::Native()) {
  zu::platform::SetCurrentForTesting(this);
}

FaultPlatform::~FaultPlatform() { zu::platform::SetCurrentForTesting(nullptr); }

void FaultPlatform::Fail(FaultOp op, int nth, bool forever) {
  fail_at_[Index(op)] = calls_[Index(op)] + nth;
  forever_[Index(op)] = forever;
}

bool FaultPlatform::ShouldFail(FaultOp op) {
  int call = ++calls_[Index(op)];
  int at = fail_at_[Index(op)];
  return at != 0 && (call == at || (forever_[Index(op)] && call > at));
}

FaultPlatform::FileHandle FaultPlatform::CreateFile(const std::wstring& path) {
  return ShouldFail(FaultOp::kCreateFile) ? kInvalidFile : native_.CreateFile(path);
}

FaultPlatform::FileHandle FaultPlatform::OpenFile(const std::wstring& path) {
  return ShouldFail(FaultOp::kOpenFile) ? kInvalidFile : native_.OpenFile(path);
}

IoStatus FaultPlatform::WriteAt(FileHandle file, uint64_t offset, const void* data, size_t length) {
  if (ShouldFail(FaultOp::kWriteAt)) return IoStatus::kNoSpace;
  return native_.WriteAt(file, offset, data, length);
}

FaultPlatform::MappingHandle FaultPlatform::CreateMapping(FileHandle file, uint64_t bytes,
                                                          IoStatus* status) {
  if (ShouldFail(FaultOp::kCreateMapping)) {
    *status = IoStatus::kNoSpace;
    return kNoMapping;
  }
  return native_.CreateMapping(file, bytes, status);
}

void* FaultPlatform::MapView(MappingHandle mapping, uint64_t offset, size_t length, bool writable,
                             void* hint) {
  if (ShouldFail(FaultOp::kMapView)) return nullptr;
  return native_.MapView(mapping, offset, length, writable, hint);
}

void* FaultPlatform::MapViewAt(MappingHandle mapping, uint64_t offset, size_t length,
                               void* address) {
  if (ShouldFail(FaultOp::kMapView)) return nullptr;
  return native_.MapViewAt(mapping, offset, length, address);
}

}  // namespace zu_test
