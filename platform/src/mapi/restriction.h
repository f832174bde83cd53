// Restrictions as tables use them: a validator that turns away malformed or hostile trees before
// anything walks them, an evaluator over one row's values, and an owned deep copy for views that
// keep a restriction beyond the caller's call.
#pragma once
#include <cstddef>

#include "mapidefs.h"

namespace adp::mapi {

// Bounds on a tree a table will take: deeper nesting, or more nodes in all (a cycle or shared
// subtrees reach one of them), is MAPI_E_TOO_COMPLEX.
constexpr unsigned kMaxRestrictionDepth = 256;
constexpr size_t kMaxRestrictionNodes = 100000;

// S_OK for a tree the evaluator can walk. MAPI_E_INVALID_PARAMETER for a malformed one (NULL
// where a pointer is needed, an unknown type or relation, mismatched property types);
// MAPI_E_TOO_COMPLEX beyond the bounds above, and for RES_COUNT and RELOP_RE, which a table
// cannot evaluate in bounded time under its lock.
HRESULT ValidateRestriction(const SRestriction* lpRes);

// Whether the row's values satisfy a restriction that passed ValidateRestriction.
bool EvaluateRestriction(const SRestriction* lpRes, ULONG cValues, const SPropValue* lpProps);

// A validated restriction copied into one MAPI allocation chain, freed with the holder.
class RestrictionCopy {
 public:
  RestrictionCopy() = default;
  ~RestrictionCopy();
  RestrictionCopy(const RestrictionCopy&) = delete;
  RestrictionCopy& operator=(const RestrictionCopy&) = delete;

  // Validates and copies; on failure the holder stays empty.
  HRESULT Assign(const SRestriction* lpRes);
  const SRestriction* Get() const { return m_root; }

 private:
  SRestriction* m_root = nullptr;
};

}  // namespace adp::mapi
