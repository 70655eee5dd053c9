#include "state/holder.h"
int Get(const Holder& h) { return h.thing().n; }
void Poke(Holder& h) { h.WriteThing().n = 2; }
