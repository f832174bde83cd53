// Deep copies of property values and notifications. One copy routine serves three destinations:
// counting the bytes a copy needs, laying a copy out in one caller buffer, and chaining each piece
// to a MAPI allocation. Every routine validates what it follows: a NULL pointer behind a non-zero
// count, or a size past 4 GiB, is MAPI_E_INVALID_PARAMETER, never a crash.
#pragma once
#include <cstddef>

#include "mapidefs.h"

namespace adp::mapi {

// Where copied data goes.
class CopyTarget {
 public:
  virtual ~CopyTarget() = default;
  // Room for cb bytes. *out is nullptr when only counting.
  virtual SCODE Take(size_t cb, void** out) = 0;
};

// Adds up sizes, each piece rounded up to 8 bytes as the buffer layout places it.
class CountingTarget final : public CopyTarget {
 public:
  SCODE Take(size_t cb, void** out) override;
  size_t Total() const { return m_total; }

 private:
  size_t m_total = 0;
};

// Places pieces one after another in a buffer the caller sized with a CountingTarget.
class BufferTarget final : public CopyTarget {
 public:
  explicit BufferTarget(void* base) : m_base(static_cast<char*>(base)) {}
  SCODE Take(size_t cb, void** out) override;
  size_t Used() const { return m_used; }

 private:
  char* m_base;
  size_t m_used = 0;
};

// Chains each piece to lpvObject with the given MAPIAllocateMore-style function.
class ChainedTarget final : public CopyTarget {
 public:
  ChainedTarget(ALLOCATEMORE* allocateMore, void* object) : m_allocateMore(allocateMore), m_object(object) {}
  SCODE Take(size_t cb, void** out) override;

 private:
  ALLOCATEMORE* m_allocateMore;
  void* m_object;
};

// Copies src into dst, the data it points to going to target. dst may be written in part when
// this fails.
SCODE CopyPropValue(const SPropValue& src, SPropValue& dst, CopyTarget& target);
// Takes room for cValues values from target and copies them there; *out is the new array
// (nullptr when counting or when cValues is 0 and src is NULL).
SCODE CopyPropArray(ULONG cValues, const SPropValue* src, SPropValue** out, CopyTarget& target);
// Copies cNotifications notifications the same way.
SCODE CopyNotifications(ULONG cNotifications, const NOTIFICATION* src, NOTIFICATION** out, CopyTarget& target);

// True when the value's type is multi-valued (MV_INSTANCE alone does not count).
inline bool IsMultiValued(ULONG ulPropTag) { return (PROP_TYPE(ulPropTag) & MV_FLAG) != 0; }
// The single-valued base type of a tag: PT_MV_STRING8 and PT_STRING8 both give PT_STRING8.
inline ULONG BaseType(ULONG ulPropTag) { return PROP_TYPE(ulPropTag) & ~(ULONG)MVI_FLAG; }

}  // namespace adp::mapi
