/* All services of the platform. */
#ifndef PLATSVC_H
#define PLATSVC_H

#include "platsvc/atomic.h"
#include "platsvc/base.h"
#include "platsvc/codes.h"
#include "platsvc/fork.h"
#include "platsvc/ipc.h"
#include "platsvc/latch.h"
#include "platsvc/life.h"
#include "platsvc/memory.h"
#include "platsvc/report.h"
#include "platsvc/time.h"

#endif
