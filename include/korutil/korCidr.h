// korCidr.h - does an address lie in a network, written as 10.0.0.0/8 or fd00::/8?

#ifndef KORUTIL_KORCIDR_H
#define KORUTIL_KORCIDR_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

struct sockaddr;

/// 1 if the first bits of `address`, as many as the prefix behind the slash says, are those of the network before it,
/// else 0; also 0, and no error, if the address is of another family or the network is no literal address. A prefix
/// beyond the width, or a negative one, means the full width, and one that is no number means 0: every address of the
/// family. Errors: 1 "Missing CIDR prefix", there is no slash; 1 "address or network is missing".
KOR_API uint8_t _korCidr_Match(korEx* ex, uint8_t depth, const struct sockaddr* address, const char* network);

KOR_END_DECLS

#endif
