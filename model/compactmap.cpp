#include "compactmap.h"

template class CompactMap<int, int>;
