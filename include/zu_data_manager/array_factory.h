// The factory that creates every array. CArrayFactory holds no state: any number may exist,
// and arrays it returns are independent of it and owned by the caller (delete through
// IZUArray's virtual destructor). A type code the requested kind does not support gives null.
//
// Owning kinds (vector, deque, file, auto vector, auto deque) require a power-of-two type code
// (0 behaves as 1). Attaching kinds map any code by range (3 selects 4-byte elements, 5..8
// select 8-byte elements, above 8 selects records of that many bytes) and view the caller's
// buffer without copying or freeing it; the caller keeps it alive for the array's lifetime.
//
// Thread-safety: the factory has no state, so it may be called from any thread.
#ifndef ZU_DATA_MANAGER_ARRAY_FACTORY_H_
#define ZU_DATA_MANAGER_ARRAY_FACTORY_H_

#include <cstdint>

#include "zu_data_manager/export.h"
#include "zu_data_manager/zu_array.h"

class ZU_EXPORT IArrayFactory {
 public:
  IArrayFactory() {}
  IArrayFactory(const IArrayFactory&) {}
  IArrayFactory& operator=(const IArrayFactory&) { return *this; }
  virtual ~IArrayFactory();

  virtual IZUArray* AllocAutoVectorArray(int type) = 0;
  virtual IZUArray* AllocAutoDequeArray(int type) = 0;
  virtual IZUArray* AllocVectorArray(int type) = 0;
  virtual IZUArray* AllocDequeArray(int type) = 0;
  virtual IZUArray* AllocFileArray(int type) = 0;
  // `length` counts the channel's own payload bytes; `gap` foreign bytes follow each element.
  virtual IZUArray* AllocAttachCrossBufferArray(int type, unsigned char* buffer, int64_t length,
                                                int gap) = 0;
  virtual IZUArray* AllocAttachBufferArray(int type, unsigned char* buffer, int64_t length) = 0;
};

class ZU_EXPORT CArrayFactory : public IArrayFactory {
 public:
  CArrayFactory() {}
  CArrayFactory(const CArrayFactory& other) : IArrayFactory(other) {}
  CArrayFactory& operator=(const CArrayFactory&) { return *this; }
  ~CArrayFactory() override;

  IZUArray* AllocAutoVectorArray(int type) override;
  IZUArray* AllocAutoDequeArray(int type) override;
  IZUArray* AllocVectorArray(int type) override;
  IZUArray* AllocDequeArray(int type) override;
  IZUArray* AllocFileArray(int type) override;
  IZUArray* AllocAttachCrossBufferArray(int type, unsigned char* buffer, int64_t length,
                                        int gap) override;
  IZUArray* AllocAttachBufferArray(int type, unsigned char* buffer, int64_t length) override;
};

#endif  // ZU_DATA_MANAGER_ARRAY_FACTORY_H_
