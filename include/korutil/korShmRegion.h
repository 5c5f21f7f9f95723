// korShmRegion.h - memory that processes share by a name.
//
//     korShmRegion* region = NULL;
//     uint8_t created = 0;
//     _korShmRegion_Create(KOR_AT(ex, depth), "quotes", &created, 1 << 20, &region);
//     void* view = _korShmRegion_Map(KOR_AT(ex, depth), region, 1 << 20, 0);
//     if (created)
//         ... lay it out: the memory is zero ...
//     _korShmRegion_Unmap(KOR_AT(ex, depth), region, view);
//     _korShmRegion_Destroy(KOR_AT_D(depth, ex), region);
//
// The memory goes with the last region object of its name; what a crashed process has left is made anew by the next
// creator. A view stays valid after its region object is destroyed, until the process ends, so it is unmapped first.
//
// Any thread may use a region. All errors of the system are code 6 with its number in `osError` and no description.

#ifndef KORUTIL_KORSHMREGION_H
#define KORUTIL_KORSHMREGION_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// A shared memory region. Made and freed by the library alone: it keeps more behind the record.
typedef struct korShmRegion {
    uint64_t handle; ///< the system's handle of the mapping
    char* name;      ///< own copy of the name
} korShmRegion;

/// Makes zeroed memory of this name, or joins it if it exists, and puts the object in `*region`, which stays as it was
/// on a failure. The caller destroys it. `*created` becomes 1 for the one who made the memory and is not written
/// otherwise, so it starts at 0. Of `size`, in bytes, the low 32 bits count; who joins gets the size that is there.
/// Errors: 6: a size of 0, or more than the system grants, or a name that it refuses; 2 (no memory); 1 "region name is
/// missing".
KOR_API void _korShmRegion_Create(korEx* ex, uint8_t depth, const char* name, uint8_t* created, uint64_t size,
                                  korShmRegion** region);

/// Maps `size` bytes from `offset` for reading and writing and gives their address, or NULL. A size of 0 maps up to the
/// end. Of `offset` the low 32 bits count; it must be a multiple of the system's unit: 64 KiB on Windows, a page on
/// Linux. Errors: 1 "region is missing"; 6: beyond the end, or no multiple; 2 (no memory).
KOR_API void* _korShmRegion_Map(korEx* ex, uint8_t depth, korShmRegion* region, uint64_t size, uint64_t offset);

/// Ends a mapping made from this region. Errors: 1 "region is missing"; 6: no such mapping.
KOR_API void _korShmRegion_Unmap(korEx* ex, uint8_t depth, korShmRegion* region, void* address);

/// Frees the object. NULL is accepted. Works with an error pending.
KOR_API void _korShmRegion_Destroy(uint8_t depth, korEx* ex, korShmRegion* region);

/// Does nothing: memory goes with its last user.
KOR_API void _korShmRegion_Unlink(uint8_t depth, korEx* ex, korShmRegion* region);

KOR_END_DECLS

#endif
