#include "state/holder.h"
void Set(Holder& h) { h.WriteThing().n = 1; }
