// The byte form of one Notify call (key, flags, NOTIFICATION array) as it travels between
// processes. Little-endian throughout; every length is checked against the bytes that remain, so
// a damaged or hostile message is refused with MAPI_E_CORRUPT_DATA and never read past its end.
//
//   message  := magic u32 0x464E4441 ("ADNF") | version u16 (1) | reserved u16 (0)
//               | flags u32 (Notify's ulFlags) | key blob | count u32 | count x notification
//   blob     := cb u32 | cb bytes            cb 0xFFFFFFFF: a NULL pointer, no bytes follow
//   astr     := blob of the text without its terminating zero
//   wstr     := units u32 | units x u16      units 0xFFFFFFFF: NULL
//   str      := wstr when the structure's ulFlags has MAPI_UNICODE, else astr
//   tags     := count u32 (0xFFFFFFFF: NULL) | count x u32
//   props    := count u32 (0xFFFFFFFF: NULL) | count x prop
//   prop     := ulPropTag u32 | value by PROP_TYPE:
//                 I2, BOOLEAN: u16 · LONG, R4, ERROR, NULL, OBJECT: u32
//                 DOUBLE, APPTIME, CURRENCY, I8, SYSTIME: u64 · CLSID: 16 bytes (GUID fields)
//                 STRING8: astr · UNICODE: wstr · BINARY: blob
//                 multi-valued: count u32 | count x element as above
//   notification := ulEventType u32 | body:
//     fnevCriticalError   entryid blob | scode u32 | ulFlags u32 | has-error u32 (0/1)
//                         [ ulVersion u32 | error str | component str | lowlevel u32 | context u32 ]
//     fnevNewMail         entryid blob | parent blob | ulFlags u32 | class str | ulMessageFlags u32
//     fnevObject*, fnevSearchComplete
//                         entryid blob | ulObjType u32 | parent blob | old blob | old parent blob | tags
//     fnevTableModified   ulTableEvent u32 | hResult u32 | propIndex prop | propPrior prop | row props
//     fnevStatusObjectModified  entryid blob | props
//     fnevExtended        ulEvent u32 | payload blob
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "mapidefs.h"
#include "mapispi.h"

namespace adm {

constexpr uint16_t kNotifyWireVersion = 1;

// Decoded notifications. Their pointers lead into memory this object owns, valid while it lives.
class CNotifyBatch {
 public:
  CNotifyBatch() = default;
  CNotifyBatch(const CNotifyBatch&) = delete;
  CNotifyBatch& operator=(const CNotifyBatch&) = delete;

  const std::vector<BYTE>& Key() const { return m_key; }
  ULONG Flags() const { return m_ulFlags; }
  ULONG Count() const { return ULONG(m_notifications.size()); }
  LPNOTIFICATION Notifications() { return m_notifications.empty() ? nullptr : m_notifications.data(); }

 private:
  friend class CNotifyDecoder;
  void* Allocate(size_t cb);

  std::vector<BYTE> m_key;
  ULONG m_ulFlags = 0;
  std::vector<NOTIFICATION> m_notifications;
  std::vector<std::unique_ptr<uint64_t[]>> m_blocks;  // small pieces share chunks
  uint64_t* m_chunk = nullptr;
  size_t m_chunkUsed = 0;
};

// Appends the message for one Notify call to out. MAPI_E_INVALID_PARAMETER for a NULL pointer
// behind a count, an unknown event type or an oversized piece; MAPI_E_INVALID_TYPE for a property
// type that has no value form.
HRESULT EncodeNotifications(const NOTIFKEY& key, ULONG ulFlags, ULONG cNotification,
                            const NOTIFICATION* lpNotifications, std::vector<BYTE>& out);

// Reads one message. MAPI_E_VERSION for another version, MAPI_E_CORRUPT_DATA for anything else
// that is not a well-formed message of exactly cb bytes. out is reset first.
HRESULT DecodeNotifications(const BYTE* pb, size_t cb, CNotifyBatch& out);

}  // namespace adm
