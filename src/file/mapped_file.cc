#include "src/file/mapped_file.h"

#include <algorithm>
#include <utility>

namespace zu {
namespace {

// A view that cannot be mapped at the old address is retried this often (the first attempt
// asks for the old address, the others let the system choose) before the segment gives up.
constexpr int kMapAttempts = 11;

// Every file holds a descriptor; make room for many of them before the first one.
bool RaiseOpenFileLimitOnce() {
  static const bool raised = [] {
    platform::Current().RaiseOpenFileLimit();
    return true;
  }();
  return raised;
}

}  // namespace

ScopedMapping::ScopedMapping(ScopedMapping&& other) noexcept
    : address_(std::exchange(other.address_, nullptr)),
      length_(std::exchange(other.length_, 0)),
      placed_(std::exchange(other.placed_, false)) {}

ScopedMapping& ScopedMapping::operator=(ScopedMapping&& other) noexcept {
  if (this != &other) {
    Reset();
    address_ = std::exchange(other.address_, nullptr);
    length_ = std::exchange(other.length_, 0);
    placed_ = std::exchange(other.placed_, false);
  }
  return *this;
}

bool ScopedMapping::MapAt(platform::MappingHandle mapping, uint64_t offset, size_t length,
                          void* address) {
  Reset();
  if (platform::Current().MapViewAt(mapping, offset, length, address) == nullptr) return false;
  address_ = address;
  length_ = length;
  placed_ = true;
  return true;
}

bool ScopedMapping::Map(platform::MappingHandle mapping, uint64_t offset, size_t length,
                        bool writable) {
  platform::Platform& os = platform::Current();
  void* hint = address_;
  Reset();
  for (int attempt = 0; attempt < kMapAttempts; ++attempt) {
    void* address = os.MapView(mapping, offset, length, writable, attempt == 0 ? hint : nullptr);
    if (address != nullptr) {
      address_ = address;
      length_ = length;
      return true;
    }
  }
  return false;
}

void ScopedMapping::Reset() {
  if (address_ == nullptr) return;
  if (placed_) {
    platform::Current().UnmapViewAt(address_, length_);
  } else {
    platform::Current().UnmapView(address_, length_);
  }
  placed_ = false;
  address_ = nullptr;
  length_ = 0;
}

MappedFile::MappedFile(uint64_t segment_bytes)
    : wide_read_view_(platform::Current().ViewsReachPastFileEnd()), segment_bytes_(segment_bytes) {
  RaiseOpenFileLimitOnce();
}

bool MappedFile::Create(const std::wstring& directory, const std::wstring& path) {
  platform::Platform& os = platform::Current();
  os.CreateDirectories(directory);
  file_ = os.CreateFile(path);
  // A failed creation leaves nothing under the name (and the name may be someone else's).
  if (file_ == platform::kInvalidFile) return false;
  path_ = path;
  return true;
}

bool MappedFile::Open(const std::wstring& path, uint64_t min_bytes) {
  platform::Platform& os = platform::Current();
  platform::FileHandle file = os.OpenFile(path);
  if (file == platform::kInvalidFile) return false;
  const int64_t length = os.FileLength(file);
  if (length < 0 || min_bytes > static_cast<uint64_t>(length)) {
    os.CloseFile(file);
    return false;
  }
  file_ = file;
  path_ = path;
  return true;
}

void MappedFile::UnmapViews() {
  write_view_.Reset();
  if (!wide_read_view_) read_view_.Reset();
  read_chunk_ = 0;
}

void MappedFile::Close() {
  UnmapViews();
  read_view_.Reset();
  platform::Platform& os = platform::Current();
  os.CloseMapping(mapping_);
  mapping_ = platform::kNoMapping;
  // The file goes with its last holder: an array that attached the same file through a
  // description (in this or another process) keeps it until it lets go too.
  if (file_ != platform::kInvalidFile) os.CloseAndDeleteFile(file_, path_);
  file_ = platform::kInvalidFile;
  path_.clear();
}

bool MappedFile::Resize(uint64_t bytes) {
  platform::Platform& os = platform::Current();
  if (write_view_.get() != nullptr) {
    os.FlushView(write_view_.get(), kChunkBytes);
    write_view_.Reset();
  }
  os.CloseMapping(mapping_);
  const uint64_t granularity = std::max<size_t>(1, os.AllocationGranularity());
  const uint64_t rounded = (bytes + granularity - 1) / granularity * granularity;
  platform::IoStatus status = platform::IoStatus::kFailed;
  mapping_ = os.CreateMapping(file_, rounded, &status);
  return mapping_ != platform::kNoMapping;
}

platform::IoStatus MappedFile::WriteAt(uint64_t offset, const void* data, size_t bytes) {
  return platform::Current().WriteAt(file_, offset, data, bytes);
}

bool MappedFile::MapWriteView(uint64_t chunk) {
  if (!write_view_.Map(mapping_, chunk * kChunkBytes, kChunkBytes, true)) return false;
  write_chunk_ = chunk;
  return true;
}

void MappedFile::FlushWriteView(size_t bytes) {
  platform::Current().FlushView(write_view_.get(), bytes);
}

bool MappedFile::MapReadView(uint64_t chunk) {
  const size_t length = static_cast<size_t>(wide_read_view_ ? segment_bytes_ : kChunkBytes);
  read_chunk_ = wide_read_view_ ? 0 : chunk;
  const bool placed = read_place_ != nullptr && read_view_.MapAt(mapping_, 0, length, read_place_);
  if (read_place_ != nullptr && !placed) {
    read_place_ = nullptr;
    read_place_failed_ = true;
  }
  if (!placed &&
      !read_view_.Map(mapping_, wide_read_view_ ? 0 : chunk * kChunkBytes, length, false)) {
    return false;
  }
  // Searches and random reads touch single pages: read-ahead would only fetch pages nobody
  // asked for. Bulk copies ask for their range themselves.
  platform::Current().AdviseView(read_view_.get(), length, platform::ViewAdvice::kRandom);
  return true;
}

bool MappedFile::MoveReadView(void* address, ScopedMapping* old) {
  if (!wide_read_view_ || address == nullptr) return false;
  if (read_view_.get() == nullptr) {
    read_place_ = address;
    return true;
  }
  ScopedMapping moved;
  const auto length = static_cast<size_t>(segment_bytes_);
  if (!moved.MapAt(mapping_, 0, length, address)) return false;
  platform::Current().AdviseView(address, length, platform::ViewAdvice::kRandom);
  *old = std::move(read_view_);
  read_view_ = std::move(moved);
  read_place_ = address;
  return true;
}

void MappedFile::WillRead(const void* address, size_t bytes) {
  platform::Current().AdviseView(address, bytes, platform::ViewAdvice::kWillNeed);
}

void MappedFile::Populate(uint64_t offset, uint64_t bytes) {
  if (!wide_read_view_ || read_view_.get() == nullptr || bytes == 0) return;
  platform::Current().AdviseView(static_cast<const unsigned char*>(read_view_.get()) + offset,
                                 static_cast<size_t>(bytes), platform::ViewAdvice::kPopulate);
}

void MappedFile::Touch(uint64_t offset, uint64_t bytes) {
  if (!wide_read_view_ || read_view_.get() == nullptr || bytes == 0) return;
  const uint64_t page = platform::Current().PageSize();
  const auto* view = static_cast<const volatile unsigned char*>(read_view_.get());
  for (uint64_t at = offset; at < offset + bytes; at += page) static_cast<void>(view[at]);
}

}  // namespace zu
