#pragma once
#include "low/base.h"
#include "mid/ring_b.h"
