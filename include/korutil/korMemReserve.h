// korMemReserve.h - memory set aside in good times, let go in one stroke when an allocation fails.
//
// A server puts a reserve by at its start. When the heap refuses a request, the allocation family gives the whole
// reserve back, tells the callback, and asks once more: what was set aside is then there to report the trouble and to
// shut down in order.
//
//     _korMemReserve_SetFreedCallback(KOR_AT(ex, depth), onMemoryLow, server);
//     _korMemReserve_Alloc(KOR_AT(ex, depth), 10 << 20);
//
// There is one reserve for the process. Any thread may call any of these.

#ifndef KORUTIL_KORMEMRESERVE_H
#define KORUTIL_KORMEMRESERVE_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The size of one block of the reserve, in bytes.
#define KOR_MEM_RESERVE_BLOCK 65536

/// Told that the reserve is gone. `bytes` is what was given back, 0 if there was nothing left. Runs on the thread whose
/// allocation failed, with no lock held; it must not count on memory of its own. An error that it leaves in `ex` is
/// dropped.
typedef void (*korMemReserveFreed)(uint8_t depth, korEx* ex, void* closure, uint32_t bytes);

/// Adds `bytes` / 65536 + 1 zeroed blocks to the reserve; a size that is a multiple of a block gets a further one, and
/// 0 gets one. A negative count of blocks asks for nothing. Blocks that were made before a failure stay.
///
/// Errors: 16 "Reserve allocation failed": the heap refused, the limit of the debug allocator is exceeded, or nothing
/// was asked for and the reserve is empty. 10 "Reserve initialization failed": its lock could not be made.
KOR_API void _korMemReserve_Alloc(korEx* ex, uint8_t depth, int64_t bytes);

/// Gives the whole reserve back to the heap and tells the callback, with 0 bytes if there was nothing. Works with an
/// error pending, and leaves `ex` as it was.
KOR_API void _korMemReserve_Free(uint8_t depth, korEx* ex);

/// Sets who is told, with an argument of the caller's own. NULL clears both.
///
/// Errors: 10 "Callback already set" unless it was cleared in between; 10 "Reserve initialization failed".
KOR_API void _korMemReserve_SetFreedCallback(korEx* ex, uint8_t depth, korMemReserveFreed callback, void* closure);

KOR_END_DECLS

#endif
