/* libtrel: hierarchical status information in shared memory. This header brings all of it. */
#ifndef TREL_H
#define TREL_H

#include "platsvc/memory.h" /* some operations give blocks that _platMemFree frees */
#include "trel/codes.h"
#include "trel/copy.h"
#include "trel/describe.h"
#include "trel/layout.h"
#include "trel/lists.h"
#include "trel/node.h"
#include "trel/property.h"
#include "trel/records.h"
#include "trel/report.h"
#include "trel/segment.h"
#include "trel/storage.h"
#include "trel/tree.h"
#include "trel/version.h"

#endif
