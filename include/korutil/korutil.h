// korutil.h - every public header of the library.

#ifndef KORUTIL_KORUTIL_H
#define KORUTIL_KORUTIL_H

#include "korutil/korBase.h"
#include "korutil/korEx.h"

#endif
