// CZUCriticalSection: the re-entrant lock that guards a file segment's views. A thin owner of
// the platform's recursive lock; use it through CZUScopedLock so the unlock also runs when an
// exception leaves the guarded region.
#ifndef ZU_CORE_CRITICAL_SECTION_H_
#define ZU_CORE_CRITICAL_SECTION_H_

#include "src/platform/platform.h"

namespace zu {

class CZUCriticalSection {
 public:
  CZUCriticalSection() = default;
  virtual ~CZUCriticalSection() = default;
  CZUCriticalSection(const CZUCriticalSection&) = delete;
  CZUCriticalSection& operator=(const CZUCriticalSection&) = delete;

  void Enter() { lock_.Lock(); }
  void Leave() { lock_.Unlock(); }

 private:
  platform::RecursiveLock lock_;
};

class CZUScopedLock {
 public:
  explicit CZUScopedLock(CZUCriticalSection& section) : section_(section) { section_.Enter(); }
  ~CZUScopedLock() { section_.Leave(); }
  CZUScopedLock(const CZUScopedLock&) = delete;
  CZUScopedLock& operator=(const CZUScopedLock&) = delete;

 private:
  CZUCriticalSection& section_;
};

}  // namespace zu

#endif  // ZU_CORE_CRITICAL_SECTION_H_
