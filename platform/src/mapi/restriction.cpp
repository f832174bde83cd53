// Restriction checking, evaluation and copying. Evaluation recurses, which is safe only because
// every tree a table evaluates went through ValidateRestriction first: that walk is iterative
// and bounds both depth and size, so a cyclic or absurdly deep tree is refused, not followed.
#include "mapi/restriction.h"

#include <vector>

#include "mapicode.h"
#include "mapitags.h"
#include "mapiutil.h"
#include "mapix.h"

namespace adp::mapi {
namespace {

bool IsComparableSingle(ULONG type) {
  switch (type) {
    case PT_I2:
    case PT_LONG:
    case PT_R4:
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_BOOLEAN:
    case PT_I8:
    case PT_STRING8:
    case PT_UNICODE:
    case PT_SYSTIME:
    case PT_CLSID:
    case PT_BINARY:
      return true;
    default:
      return false;
  }
}

bool IsComparable(ULONG type) {
  if ((type & MV_FLAG) == 0) return IsComparableSingle(type);
  ULONG element = type & ~ULONG(MVI_FLAG);
  return element != PT_BOOLEAN && IsComparableSingle(element);
}

bool IsText(ULONG type) { return type == PT_STRING8 || type == PT_UNICODE || type == PT_BINARY; }

// MV_INSTANCE without MV_FLAG names no published type.
bool HasStrayInstanceBit(ULONG type) { return (type & MV_INSTANCE) && !(type & MV_FLAG); }

bool IsInstanceTag(ULONG tag) { return (PROP_TYPE(tag) & MVI_FLAG) == MVI_FLAG; }

bool IsValidRelop(ULONG relop) { return relop <= RELOP_NE; }

HRESULT CheckRelop(ULONG relop) {
  if (relop == RELOP_RE) return MAPI_E_TOO_COMPLEX;
  return IsValidRelop(relop) ? S_OK : MAPI_E_INVALID_PARAMETER;
}

// A value the evaluator reads must be one the copy routines can follow.
HRESULT CheckValue(const SPropValue* lpProp) {
  if (!lpProp) return MAPI_E_INVALID_PARAMETER;
  return ScCountProps(1, const_cast<LPSPropValue>(lpProp), nullptr) == S_OK ? S_OK : MAPI_E_INVALID_PARAMETER;
}

HRESULT CheckProperty(const SPropertyRestriction& r) {
  if (HRESULT hr = CheckRelop(r.relop); hr != S_OK) return hr;
  if (HRESULT hr = CheckValue(r.lpProp); hr != S_OK) return hr;
  ULONG rowType = PROP_TYPE(r.ulPropTag);
  if (HasStrayInstanceBit(rowType) || !IsComparable(rowType)) return MAPI_E_INVALID_PARAMETER;
  // With MVI_FLAG each value of the row's property meets the single value on its own.
  ULONG expected = IsInstanceTag(r.ulPropTag) ? rowType & ~ULONG(MVI_FLAG) : rowType;
  return PROP_TYPE(r.lpProp->ulPropTag) == expected ? S_OK : MAPI_E_INVALID_PARAMETER;
}

HRESULT CheckContent(const SContentRestriction& r) {
  if (HRESULT hr = CheckValue(r.lpProp); hr != S_OK) return hr;
  ULONG match = r.ulFuzzyLevel & 0xFFFF;
  ULONG loosen = r.ulFuzzyLevel & 0xFFFF0000;
  if (match > FL_PREFIX || (loosen & ~(FL_IGNORECASE | FL_IGNORENONSPACE | FL_LOOSE)) != 0) return MAPI_E_TOO_COMPLEX;
  ULONG rowType = PROP_TYPE(r.ulPropTag);
  if (HasStrayInstanceBit(rowType)) return MAPI_E_INVALID_PARAMETER;
  ULONG element = rowType & ~ULONG(MVI_FLAG);
  if (!IsText(element)) return MAPI_E_INVALID_PARAMETER;
  return PROP_TYPE(r.lpProp->ulPropTag) == element ? S_OK : MAPI_E_INVALID_PARAMETER;
}

HRESULT CheckCompareProps(const SComparePropsRestriction& r) {
  if (HRESULT hr = CheckRelop(r.relop); hr != S_OK) return hr;
  ULONG type = PROP_TYPE(r.ulPropTag1);
  if (type != PROP_TYPE(r.ulPropTag2) || (type & MV_INSTANCE) || !IsComparable(type)) return MAPI_E_INVALID_PARAMETER;
  return S_OK;
}

HRESULT CheckBitMask(const SBitMaskRestriction& r) {
  if (r.relBMR != BMR_EQZ && r.relBMR != BMR_NEZ) return MAPI_E_INVALID_PARAMETER;
  ULONG type = PROP_TYPE(r.ulPropTag);
  return type == PT_LONG || type == PT_I2 ? S_OK : MAPI_E_INVALID_PARAMETER;
}

HRESULT CheckComment(ULONG cValues, const SPropValue* lpProp) {
  if (cValues > kMaxRestrictionNodes) return MAPI_E_TOO_COMPLEX;
  if (cValues == 0) return S_OK;
  if (!lpProp) return MAPI_E_INVALID_PARAMETER;
  return ScCountProps(int(cValues), const_cast<LPSPropValue>(lpProp), nullptr) == S_OK ? S_OK
                                                                                      : MAPI_E_INVALID_PARAMETER;
}

HRESULT CheckNode(const SRestriction& r) {
  switch (r.rt) {
    case RES_AND:
    case RES_OR:
    case RES_NOT:
    case RES_EXIST:
      return S_OK;
    case RES_CONTENT:
      return CheckContent(r.res.resContent);
    case RES_PROPERTY:
      return CheckProperty(r.res.resProperty);
    case RES_COMPAREPROPS:
      return CheckCompareProps(r.res.resCompareProps);
    case RES_BITMASK:
      return CheckBitMask(r.res.resBitMask);
    case RES_SIZE:
      return CheckRelop(r.res.resSize.relop);
    case RES_SUBRESTRICTION: {
      ULONG sub = r.res.resSub.ulSubObject;
      return sub == PR_MESSAGE_RECIPIENTS || sub == PR_MESSAGE_ATTACHMENTS ? S_OK : MAPI_E_INVALID_PARAMETER;
    }
    case RES_COMMENT:
      return CheckComment(r.res.resComment.cValues, r.res.resComment.lpProp);
    case RES_ANNOTATION:
      return CheckComment(r.res.resAnnotation.cValues, r.res.resAnnotation.lpProp);
    case RES_COUNT:
      // Counting matches makes a row's membership depend on the rows before it.
      return MAPI_E_TOO_COMPLEX;
    default:
      return MAPI_E_INVALID_PARAMETER;
  }
}

struct Pending {
  const SRestriction* node;
  unsigned depth;
};

// The children a node has: an array for AND and OR, one pointer for the others that nest.
struct Children {
  const SRestriction* first = nullptr;
  ULONG count = 0;
  bool required = false;  // a NULL pointer is malformed, not merely absent
};

Children ChildrenOf(const SRestriction& r) {
  switch (r.rt) {
    case RES_AND:
    case RES_OR:
      return {r.res.resAnd.lpRes, r.res.resAnd.cRes, r.res.resAnd.cRes != 0};
    case RES_NOT:
      return {r.res.resNot.lpRes, 1, true};
    case RES_SUBRESTRICTION:
      return {r.res.resSub.lpRes, 1, true};
    case RES_COMMENT:
      return {r.res.resComment.lpRes, 1, false};
    case RES_ANNOTATION:
      return {r.res.resAnnotation.lpRes, 1, false};
    default:
      return {};
  }
}

// Queues a node's children; fails before anything is queued when they cannot all be walked.
HRESULT QueueChildren(const SRestriction& r, unsigned depth, size_t budget, std::vector<Pending>& stack) {
  Children c = ChildrenOf(r);
  if (!c.first) return c.required ? MAPI_E_INVALID_PARAMETER : S_OK;
  if (c.count > budget) return MAPI_E_TOO_COMPLEX;
  for (ULONG i = 0; i < c.count; ++i) stack.push_back({&c.first[i], depth + 1});
  return S_OK;
}

// ---------------------------------------------------------------------------------------------
// Evaluation.

// The row's value for a tag: PT_UNSPECIFIED takes any type of that identifier, MV_INSTANCE
// looks at the multi-valued property itself. Error values stand for absent properties.
const SPropValue* FindValue(ULONG cValues, const SPropValue* lpProps, ULONG ulPropTag) {
  ULONG wanted = ulPropTag & ~ULONG(MV_INSTANCE);
  bool anyType = PROP_TYPE(wanted) == PT_UNSPECIFIED;
  for (ULONG i = 0; i < cValues; ++i) {
    ULONG tag = lpProps[i].ulPropTag;
    if (tag == wanted || (anyType && PROP_ID(tag) == PROP_ID(wanted) && PROP_TYPE(tag) != PT_ERROR))
      return &lpProps[i];
  }
  return nullptr;
}

// Value k of a multi-valued property as a single value of its element type.
SPropValue Element(const SPropValue& mv, ULONG k) {
  SPropValue e{};
  ULONG type = PROP_TYPE(mv.ulPropTag) & ~ULONG(MVI_FLAG);
  e.ulPropTag = CHANGE_PROP_TYPE(mv.ulPropTag, type);
  const __UPV& v = mv.Value;
  switch (type) {
    case PT_I2: e.Value.i = v.MVi.lpi[k]; break;
    case PT_LONG: e.Value.l = v.MVl.lpl[k]; break;
    case PT_R4: e.Value.flt = v.MVflt.lpflt[k]; break;
    case PT_DOUBLE: e.Value.dbl = v.MVdbl.lpdbl[k]; break;
    case PT_CURRENCY: e.Value.cur = v.MVcur.lpcur[k]; break;
    case PT_APPTIME: e.Value.at = v.MVat.lpat[k]; break;
    case PT_SYSTIME: e.Value.ft = v.MVft.lpft[k]; break;
    case PT_I8: e.Value.li = v.MVli.lpli[k]; break;
    case PT_CLSID: e.Value.lpguid = &v.MVguid.lpguid[k]; break;
    case PT_STRING8: e.Value.lpszA = v.MVszA.lppszA[k]; break;
    case PT_UNICODE: e.Value.lpszW = v.MVszW.lppszW[k]; break;
    case PT_BINARY: e.Value.bin = v.MVbin.lpbin[k]; break;
    default: break;
  }
  return e;
}

// Every multi-valued array starts with its count; a NULL array has no values.
ULONG ElementCount(const SPropValue& mv) { return mv.Value.MVl.lpl ? mv.Value.MVl.cValues : 0; }

bool EvaluateProperty(const SPropertyRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  const SPropValue* value = FindValue(cValues, lpProps, r.ulPropTag);
  if (!value) return false;
  LPSPropValue wanted = r.lpProp;
  if (!IsInstanceTag(r.ulPropTag)) return FPropCompareProp(const_cast<LPSPropValue>(value), r.relop, wanted);
  for (ULONG k = 0, n = ElementCount(*value); k < n; ++k) {
    SPropValue e = Element(*value, k);
    if (FPropCompareProp(&e, r.relop, wanted)) return true;
  }
  return false;
}

bool EvaluateContent(const SContentRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  const SPropValue* value = FindValue(cValues, lpProps, r.ulPropTag);
  return value && FPropContainsProp(const_cast<LPSPropValue>(value), r.lpProp, r.ulFuzzyLevel);
}

bool EvaluateCompareProps(const SComparePropsRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  const SPropValue* a = FindValue(cValues, lpProps, r.ulPropTag1);
  const SPropValue* b = FindValue(cValues, lpProps, r.ulPropTag2);
  return a && b && FPropCompareProp(const_cast<LPSPropValue>(a), r.relop, const_cast<LPSPropValue>(b));
}

bool EvaluateBitMask(const SBitMaskRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  const SPropValue* value = FindValue(cValues, lpProps, r.ulPropTag);
  if (!value) return false;
  ULONG bits = PROP_TYPE(value->ulPropTag) == PT_I2 ? ULONG(static_cast<unsigned short>(value->Value.i)) : value->Value.ul;
  bool zero = (bits & r.ulMask) == 0;
  return r.relBMR == BMR_EQZ ? zero : !zero;
}

bool Relate(ULONG a, ULONG relop, ULONG b) {
  switch (relop) {
    case RELOP_LT: return a < b;
    case RELOP_LE: return a <= b;
    case RELOP_GT: return a > b;
    case RELOP_GE: return a >= b;
    case RELOP_EQ: return a == b;
    case RELOP_NE: return a != b;
    default: return false;
  }
}

bool EvaluateSize(const SSizeRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  const SPropValue* value = FindValue(cValues, lpProps, r.ulPropTag);
  return value && Relate(UlPropSize(const_cast<LPSPropValue>(value)), r.relop, r.cb);
}

bool EvaluateAll(const SAndRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  for (ULONG i = 0; i < r.cRes; ++i)
    if (!EvaluateRestriction(&r.lpRes[i], cValues, lpProps)) return false;
  return true;
}

bool EvaluateAny(const SOrRestriction& r, ULONG cValues, const SPropValue* lpProps) {
  for (ULONG i = 0; i < r.cRes; ++i)
    if (EvaluateRestriction(&r.lpRes[i], cValues, lpProps)) return true;
  return false;
}

// ---------------------------------------------------------------------------------------------
// Copying, chained to one root so that one MAPIFreeBuffer releases the whole tree.

SCODE CopyNode(const SRestriction& src, SRestriction& dst, void* root);

SCODE CopyChildren(const SRestriction* src, ULONG count, SRestriction** out, void* root) {
  *out = nullptr;
  if (!src || count == 0) return S_OK;
  void* room = nullptr;
  SCODE sc = MAPIAllocateMore(ULONG(sizeof(SRestriction) * count), root, &room);
  if (sc != S_OK) return sc;
  auto* children = static_cast<SRestriction*>(room);
  for (ULONG i = 0; i < count; ++i)
    if ((sc = CopyNode(src[i], children[i], root)) != S_OK) return sc;
  *out = children;
  return S_OK;
}

SCODE CopyValues(const SPropValue* src, ULONG count, SPropValue** out, void* root) {
  *out = nullptr;
  if (!src || count == 0) return S_OK;
  void* room = nullptr;
  SCODE sc = MAPIAllocateMore(ULONG(sizeof(SPropValue) * count), root, &room);
  if (sc != S_OK) return sc;
  auto* values = static_cast<SPropValue*>(room);
  for (ULONG i = 0; i < count; ++i)
    if ((sc = PropCopyMore(&values[i], const_cast<LPSPropValue>(&src[i]), MAPIAllocateMore, root)) != S_OK) return sc;
  *out = values;
  return S_OK;
}

SCODE CopyNode(const SRestriction& src, SRestriction& dst, void* root) {
  dst = src;
  switch (src.rt) {
    case RES_AND:
    case RES_OR:
      return CopyChildren(src.res.resAnd.lpRes, src.res.resAnd.cRes, &dst.res.resAnd.lpRes, root);
    case RES_NOT:
      return CopyChildren(src.res.resNot.lpRes, 1, &dst.res.resNot.lpRes, root);
    case RES_SUBRESTRICTION:
      return CopyChildren(src.res.resSub.lpRes, 1, &dst.res.resSub.lpRes, root);
    case RES_CONTENT:
      return CopyValues(src.res.resContent.lpProp, 1, &dst.res.resContent.lpProp, root);
    case RES_PROPERTY:
      return CopyValues(src.res.resProperty.lpProp, 1, &dst.res.resProperty.lpProp, root);
    case RES_COMMENT:
    case RES_ANNOTATION: {
      const SCommentRestriction& c = src.res.resComment;
      SCODE sc = CopyValues(c.lpProp, c.cValues, &dst.res.resComment.lpProp, root);
      return sc != S_OK ? sc : CopyChildren(c.lpRes, 1, &dst.res.resComment.lpRes, root);
    }
    default:
      return S_OK;
  }
}

}  // namespace

HRESULT ValidateRestriction(const SRestriction* lpRes) {
  if (!lpRes) return MAPI_E_INVALID_PARAMETER;
  std::vector<Pending> stack{{lpRes, 1}};
  size_t nodes = 0;
  while (!stack.empty()) {
    Pending p = stack.back();
    stack.pop_back();
    if (p.depth > kMaxRestrictionDepth || ++nodes > kMaxRestrictionNodes) return MAPI_E_TOO_COMPLEX;
    if (HRESULT hr = CheckNode(*p.node); hr != S_OK) return hr;
    size_t budget = kMaxRestrictionNodes - nodes - stack.size();
    if (HRESULT hr = QueueChildren(*p.node, p.depth, budget, stack); hr != S_OK) return hr;
  }
  return S_OK;
}

bool EvaluateRestriction(const SRestriction* lpRes, ULONG cValues, const SPropValue* lpProps) {
  if (!lpRes) return true;
  if (!lpProps) cValues = 0;
  const auto& r = lpRes->res;
  switch (lpRes->rt) {
    case RES_AND:
      return EvaluateAll(r.resAnd, cValues, lpProps);
    case RES_OR:
      return EvaluateAny(r.resOr, cValues, lpProps);
    case RES_NOT:
      return !EvaluateRestriction(r.resNot.lpRes, cValues, lpProps);
    case RES_CONTENT:
      return EvaluateContent(r.resContent, cValues, lpProps);
    case RES_PROPERTY:
      return EvaluateProperty(r.resProperty, cValues, lpProps);
    case RES_COMPAREPROPS:
      return EvaluateCompareProps(r.resCompareProps, cValues, lpProps);
    case RES_BITMASK:
      return EvaluateBitMask(r.resBitMask, cValues, lpProps);
    case RES_SIZE:
      return EvaluateSize(r.resSize, cValues, lpProps);
    case RES_EXIST:
      return FindValue(cValues, lpProps, r.resExist.ulPropTag) != nullptr;
    case RES_SUBRESTRICTION:
      // A table row carries no recipient or attachment rows, so no sub-object can match.
      return false;
    case RES_COMMENT:
      // A comment annotates; without a restriction of its own it lets every row through.
      return EvaluateRestriction(r.resComment.lpRes, cValues, lpProps);
    case RES_ANNOTATION:
      return EvaluateRestriction(r.resAnnotation.lpRes, cValues, lpProps);
    default:
      return false;
  }
}

RestrictionCopy::~RestrictionCopy() {
  if (m_root) MAPIFreeBuffer(m_root);
}

HRESULT RestrictionCopy::Assign(const SRestriction* lpRes) {
  if (HRESULT hr = ValidateRestriction(lpRes); hr != S_OK) return hr;
  void* room = nullptr;
  SCODE sc = MAPIAllocateBuffer(sizeof(SRestriction), &room);
  if (sc != S_OK) return sc;
  auto* root = static_cast<SRestriction*>(room);
  sc = CopyNode(*lpRes, *root, root);
  if (sc != S_OK) {
    MAPIFreeBuffer(root);
    return sc;
  }
  if (m_root) MAPIFreeBuffer(m_root);
  m_root = root;
  return S_OK;
}

}  // namespace adp::mapi
