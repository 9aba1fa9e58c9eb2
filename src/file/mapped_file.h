// The mapped data file behind one file segment.
//
//  * ScopedMapping: one mapped view of a file; unmapped when it is mapped again, reset or
//    destroyed.
//  * MappedFile: one data file with its mapping object and the two views a segment reaches it
//    through. The mapping object fixes how far the file reaches: making a larger one grows the
//    file with its blocks reserved, so a write through a view cannot fault on a full disk. The
//    write view spans one chunk at a chunk-aligned offset. The read view spans one chunk too,
//    or, where the platform lets a view reach past the end of its file (64-bit POSIX), the
//    whole segment from offset 0: such a wide view is mapped once and never moves while the
//    file lives, so random reads cost no remapping.
//
// Failure: every operation that can fail answers false and leaves no view (or no file) behind;
// the segment decides what that means for its elements.
// Ownership: a MappedFile owns its file and deletes it on Close() and on destruction, after
// unmapping the views and closing the mapping object (unless another holder keeps the file
// open: the last one deletes it). An address inside a view stays valid
// until that view is mapped again or unmapped.
// Thread-safety: none of its own; the segment guards each view with one of its locks.
#ifndef ZU_FILE_MAPPED_FILE_H_
#define ZU_FILE_MAPPED_FILE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "src/platform/platform.h"

namespace zu {

// Bytes of file data behind one view, and the step by which a file grows.
constexpr uint64_t kChunkBytes = 0x100000;
// Bytes of data one segment (one file) holds at most.
constexpr uint64_t kSegmentBytes = 0x8000000;

// The size of a segment as a type, so that file storage can be instantiated with smaller
// segments: the library's storage uses this one; a layout of a few chunks per segment reaches
// the segment boundaries without writing 128 MiB (for tests). kSegmentBytes must be a
// multiple of kChunkBytes. kFirstPlacedSegments: the segments whose read views the first
// reserved range of addresses holds (8 GiB for the library's; it grows from there).
struct FileLayout {
  static constexpr uint64_t kSegmentBytes = ::zu::kSegmentBytes;
  static constexpr uint64_t kFirstPlacedSegments = 64;
};

class ScopedMapping {
 public:
  ScopedMapping() = default;
  ~ScopedMapping() { Reset(); }
  ScopedMapping(ScopedMapping&& other) noexcept;
  ScopedMapping& operator=(ScopedMapping&& other) noexcept;
  ScopedMapping(const ScopedMapping&) = delete;
  ScopedMapping& operator=(const ScopedMapping&) = delete;

  // Maps `length` bytes of `mapping` from `offset` in place of the view held so far. The first
  // attempt asks for the old view's address, so a remapped view usually stays where it was;
  // the others let the system choose. False, holding no view, when every attempt failed.
  bool Map(platform::MappingHandle mapping, uint64_t offset, size_t length, bool writable);
  // Maps a read-only view exactly at `address`, inside a reserved range, in place of the view
  // held so far; unmapping it gives the range back to the reservation. False, holding no
  // view, on failure.
  bool MapAt(platform::MappingHandle mapping, uint64_t offset, size_t length, void* address);
  // Unmaps the view, if any.
  void Reset();

  void* get() const { return address_; }
  size_t length() const { return length_; }

 private:
  void* address_ = nullptr;  // the view, or null
  size_t length_ = 0;        // bytes mapped at address_
  bool placed_ = false;      // address_ lies in a reserved range (MapAt)
};

class MappedFile {
 public:
  // A file of one segment of `segment_bytes` (the span of a wide read view).
  explicit MappedFile(uint64_t segment_bytes);
  ~MappedFile() { Close(); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // Creates the file `path` in `directory` (creating the directory and its parents first).
  // False, with no file and nothing left under the name, when it cannot be created.
  bool Create(const std::wstring& directory, const std::wstring& path);
  // Takes over the existing file `path`, which must hold at least `min_bytes`. False, with the
  // file left exactly as it is, when it cannot be opened or is shorter.
  bool Open(const std::wstring& path, uint64_t min_bytes);
  // Unmaps both views, closes the mapping object and the file, and deletes the file (or leaves
  // that to the file's last holder).
  void Close();
  // Unmaps the write view and a read view of one chunk; the file, its mapping object and a
  // wide read view stay (a wide view pins nothing but addresses, and what was read in place
  // through it stays readable until the segment goes).
  void UnmapViews();

  bool is_open() const { return file_ != platform::kInvalidFile; }
  // The file's path; empty when no file is held.
  const std::wstring& path() const { return path_; }
  platform::FileHandle handle() const { return file_; }

  // Replaces the mapping object by one of at least `bytes` (rounded up to the allocation
  // granularity); the file grows to its size. The write view is written back and unmapped
  // first; the read view stays. False, with no mapping object, when the file cannot grow.
  bool Resize(uint64_t bytes);
  bool has_mapping() const { return mapping_ != platform::kNoMapping; }
  // Writes `bytes` at `offset` of the file, without a view.
  platform::IoStatus WriteAt(uint64_t offset, const void* data, size_t bytes);

  // --- write view ------------------------------------------------------------------------
  // Maps the write view on chunk `chunk`; false (no write view) when it cannot be mapped.
  bool MapWriteView(uint64_t chunk);
  // The write view when it covers chunk `chunk`; null otherwise.
  void* WriteViewOn(uint64_t chunk) const {
    return write_chunk_ == chunk ? write_view_.get() : nullptr;
  }
  void* write_view() const { return write_view_.get(); }
  // Starts write-back of the first `bytes` of the write view (no-op without one).
  void FlushWriteView(size_t bytes);

  // --- read view -------------------------------------------------------------------------
  // Maps the read view on chunk `chunk` (a wide view on the whole segment). Reads through it
  // are taken as random: the system reads no more than the page touched.
  bool MapReadView(uint64_t chunk);
  // Where a wide read view is to be mapped: `address`, in a range the caller reserved, before
  // the view is first mapped. A view that cannot be placed there is mapped where the system
  // likes, and read_place_failed() then tells the caller the range may no longer be reserved.
  void PlaceReadView(void* address) { read_place_ = wide_read_view_ ? address : nullptr; }
  // Maps the wide read view again at `address` (in a range the caller reserved) and hands the
  // view mapped so far to *old, still mapped; without a view yet, only the place changes.
  // False, with the view and its place as they were, when it cannot be mapped there.
  bool MoveReadView(void* address, ScopedMapping* old);
  // The read view is mapped at the place it was given.
  bool read_view_placed() const {
    return read_place_ != nullptr && read_view_.get() == read_place_;
  }
  bool read_place_failed() const { return read_place_failed_; }
  // Whether the read view can serve chunk `chunk` as it is.
  bool ReadViewCovers(uint64_t chunk) const {
    return read_view_.get() != nullptr && (wide_read_view_ || read_chunk_ == chunk);
  }
  const void* read_view() const { return read_view_.get(); }
  // The chunk the read view was last mapped on (0 for a wide view or none).
  uint64_t read_chunk() const { return read_chunk_; }
  bool wide_read_view() const { return wide_read_view_; }
  // Asks the system to fetch `bytes` of a view from `address` now: they are read next.
  void WillRead(const void* address, size_t bytes);
  // Maps `bytes` of the file from `offset` into a wide read view now, where the system can
  // without reading the disk (they were just written); no-op without a wide view.
  void Populate(uint64_t offset, uint64_t bytes);
  // The same by reading a byte of every page: where the page cache holds the range in small
  // pieces, each fault maps a whole piece (or the system's window around it) at once, which
  // costs a fraction of Populate's walk page by page. The range must lie within the file.
  void Touch(uint64_t offset, uint64_t bytes);

 private:
  // The read view first: the segment's lock-free reads look at it.
  ScopedMapping read_view_;         // one chunk or the whole segment (wide), or none
  bool wide_read_view_ = false;     // the read view spans the segment from offset 0
  uint64_t segment_bytes_;          // bytes a wide read view spans
  uint64_t read_chunk_ = 0;         // chunk the read view covers while mapped (0 when wide)
  void* read_place_ = nullptr;      // where a wide read view goes (reserved), or null: anywhere
  bool read_place_failed_ = false;  // a placement failed; read_place_ is given up
  ScopedMapping write_view_;        // one chunk, or none
  uint64_t write_chunk_ = 0;        // chunk the write view covers while mapped
  platform::FileHandle file_ = platform::kInvalidFile;      // open while a file is held
  platform::MappingHandle mapping_ = platform::kNoMapping;  // fixes the file's length
  std::wstring path_;  // the held file's path; empty when none is held
};

}  // namespace zu

#endif  // ZU_FILE_MAPPED_FILE_H_
