#pragma once
#include "mid/ring_a.h"
