// korHeaderID.h - an identifier in a message header: a small number, cheap on the wire, or a UUID.

#ifndef KORUTIL_KORHEADERID_H
#define KORUTIL_KORHEADERID_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// The identifier. Plain data; it belongs to whoever made it.
typedef struct korHeaderID {
    uint64_t id;      ///< not 0: the identifier is this number; 0: it is the UUID
    uint64_t uuid[2]; ///< the binary UUID, 16 bytes
} korHeaderID;

KOR_END_DECLS

#endif
