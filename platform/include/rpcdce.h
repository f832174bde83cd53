// UUID text conversions of the RPC runtime.
#pragma once
#include "guiddef.h"

typedef GUID UUID;
typedef LONG RPC_STATUS;
typedef unsigned char* RPC_CSTR;
typedef unsigned short* RPC_WSTR;
typedef const unsigned short* RPC_CWSTR;
#define RPC_ENTRY

#ifndef RPC_S_OK
#define RPC_S_OK 0L
#endif
#ifndef RPC_S_OUT_OF_MEMORY
#define RPC_S_OUT_OF_MEMORY 14L
#endif
#ifndef RPC_S_INVALID_ARG
#define RPC_S_INVALID_ARG 87L
#endif
#ifndef RPC_S_INVALID_STRING_UUID
#define RPC_S_INVALID_STRING_UUID 1705L
#endif
#ifndef RPC_S_UUID_LOCAL_ONLY
#define RPC_S_UUID_LOCAL_ONLY 1824L
#endif

// Text form "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" without braces; a NULL text is the nil UUID.
extern "C" RPC_STATUS UuidFromStringA(RPC_CSTR StringUuid, UUID* Uuid);
extern "C" RPC_STATUS UuidFromStringW(RPC_WSTR StringUuid, UUID* Uuid);
// Lower-case text; free it with RpcStringFreeA / RpcStringFreeW.
extern "C" RPC_STATUS UuidToStringA(const UUID* Uuid, RPC_CSTR* StringUuid);
extern "C" RPC_STATUS UuidToStringW(const UUID* Uuid, RPC_WSTR* StringUuid);
extern "C" RPC_STATUS RpcStringFreeA(RPC_CSTR* String);
extern "C" RPC_STATUS RpcStringFreeW(RPC_WSTR* String);
extern "C" RPC_STATUS UuidCreate(UUID* Uuid);
