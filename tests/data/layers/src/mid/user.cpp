#include "gtest/gtest.h"
#include "mid/ring_a.h"
