// The entry frame of imgcolor's exports: the shared entry rule, the ranges of
// the arguments and the passes that own everything around a kernel. A family
// file includes this and adds its checks, its tables or kernel.
#pragma once

#include "checks.h"
#include "family.h"
#include "imgcolor.h"
#include "passes.h"
#include "ranges.h"
