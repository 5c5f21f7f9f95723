// korutil.h - every public header of the library.

#ifndef KORUTIL_KORUTIL_H
#define KORUTIL_KORUTIL_H

#include "korutil/korAlloc.h"
#include "korutil/korBase.h"
#include "korutil/korEx.h"
#include "korutil/korHIDHash.h"
#include "korutil/korHash.h"
#include "korutil/korHeaderID.h"
#include "korutil/korMemReserve.h"
#include "korutil/korObjectMap.h"
#include "korutil/korProcess.h"
#include "korutil/korRWLock.h"
#include "korutil/korSemaphore.h"
#include "korutil/korShmRegion.h"
#include "korutil/korStrHash.h"
#include "korutil/korText.h"
#include "korutil/korTime.h"

#endif
