// korutil.h - every public header of the library.

#ifndef KORUTIL_KORUTIL_H
#define KORUTIL_KORUTIL_H

#include "korutil/korAffinity.h"
#include "korutil/korAlloc.h"
#include "korutil/korBase.h"
#include "korutil/korCPU.h"
#include "korutil/korCondition.h"
#include "korutil/korCountCondition.h"
#include "korutil/korCrc64.h"
#include "korutil/korDpa.h"
#include "korutil/korEx.h"
#include "korutil/korFastCondition.h"
#include "korutil/korFastLock.h"
#include "korutil/korFastRWLock.h"
#include "korutil/korHIDHash.h"
#include "korutil/korHash.h"
#include "korutil/korHeaderID.h"
#include "korutil/korI64Hash.h"
#include "korutil/korMd5.h"
#include "korutil/korMemReserve.h"
#include "korutil/korMutex.h"
#include "korutil/korObjectMap.h"
#include "korutil/korProcess.h"
#include "korutil/korRWLock.h"
#include "korutil/korRefDpa.h"
#include "korutil/korSemaphore.h"
#include "korutil/korShmRegion.h"
#include "korutil/korSpookyHash.h"
#include "korutil/korStrHash.h"
#include "korutil/korText.h"
#include "korutil/korTime.h"

#endif
