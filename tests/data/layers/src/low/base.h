#pragma once
#include "high/top.h"
#include <vector>
